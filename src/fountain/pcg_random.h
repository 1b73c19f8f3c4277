#pragma once

#include <bit>
#include <cstdint>
#include <span>

namespace ox::fountain {

/// The PCG XSH-RR 64/32 generator. Encoder and decoder draw the same numbers from the same seeds,
/// which is all that they share about the matrix.
class PcgRandom {
  public:
    explicit PcgRandom(uint64_t sequence, uint64_t seed = 0) noexcept
        : increment_((sequence << 1U) | 1U) {
        next();
        state_ += seed;
        next();
    }

    uint32_t next() noexcept {
        const uint64_t old = state_;
        state_ = old * 6364136223846793005ULL + increment_;
        const auto shifted = static_cast<uint32_t>(((old >> 18U) ^ old) >> 27U);
        return std::rotr(shifted, static_cast<int>(old >> 59U));
    }

  private:
    uint64_t state_ = 0;
    uint64_t increment_;
};

/// Fills `deck` with the numbers 0 .. size-1 in random order (inside-out shuffle). One draw serves
/// four positions of a small deck and two of a large one.
inline void shuffle_deck(PcgRandom& random, std::span<uint16_t> deck) noexcept {
    const auto size = static_cast<uint32_t>(deck.size());
    const uint32_t bits = size <= 256 ? 8 : 16;
    const uint32_t mask = (1U << bits) - 1;
    uint32_t draw = 0;
    uint32_t left = 0;
    for (uint32_t i = 0; i < size; ++i) {
        if (left == 0) {
            draw = random.next();
            left = 32 / bits;
        }
        const uint32_t j = (draw & mask) % (i + 1);
        draw >>= bits;
        --left;
        deck[i] = deck[j];
        deck[j] = static_cast<uint16_t>(i);
    }
}

}  // namespace ox::fountain
