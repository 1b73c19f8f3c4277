#pragma once

#include <array>
#include <cstdint>

#include "fountain/gf256.h"

namespace ox::fountain {

/// For one factor, its products with the sixteen low nibbles and with the sixteen high nibbles: two
/// look-ups (two byte shuffles of a vector unit) and one addition multiply a byte.
struct alignas(32) Gf256NibbleProducts {
    std::array<uint8_t, 16> low{};
    std::array<uint8_t, 16> high{};
};

constexpr std::array<Gf256NibbleProducts, 256> make_gf256_nibble_products() {
    std::array<Gf256NibbleProducts, 256> products{};
    for (unsigned factor = 0; factor < 256; ++factor) {
        for (unsigned nibble = 0; nibble < 16; ++nibble) {
            const auto f = static_cast<uint8_t>(factor);
            products[factor].low[nibble] = gf256_mul(f, static_cast<uint8_t>(nibble));
            products[factor].high[nibble] = gf256_mul(f, static_cast<uint8_t>(nibble << 4U));
        }
    }
    return products;
}

inline constexpr std::array<Gf256NibbleProducts, 256> kGf256NibbleProducts =
    make_gf256_nibble_products();

inline uint8_t multiply_by_nibbles(const Gf256NibbleProducts& products, uint8_t value) noexcept {
    return products.low[value & 15U] ^ products.high[value >> 4U];
}

/// Byte `at` of the sum of `count` blocks.
inline uint8_t sum_bytes(const uint8_t* const* sources, size_t count, size_t at) noexcept {
    uint8_t sum = sources[0][at];
    for (size_t s = 1; s < count; ++s)
        sum ^= sources[s][at];
    return sum;
}

/// Null where the build has no such code; whether the processor can run it is asked elsewhere.
const Gf256Kernels* ssse3_kernels() noexcept;
const Gf256Kernels* avx2_kernels() noexcept;
const Gf256Kernels* neon_kernels() noexcept;

}  // namespace ox::fountain
