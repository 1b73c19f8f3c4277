#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "fountain/tables.h"

namespace ox::fountain {

/// Arithmetic in GF(256), for the heavy rows. Stateless.

struct Gf256Logs {
    std::array<uint8_t, 256> log{};
    std::array<uint8_t, 512> exp{};  ///< doubled, so that a sum of two logarithms needs no modulo
};

constexpr Gf256Logs make_gf256_logs() {
    Gf256Logs logs;
    unsigned element = 1;
    for (unsigned i = 0; i < 255; ++i) {
        logs.exp[i] = static_cast<uint8_t>(element);
        logs.exp[i + 255] = static_cast<uint8_t>(element);
        logs.log[element] = static_cast<uint8_t>(i);
        element <<= 1U;
        if (element > 255) element ^= kFieldPolynomial;
    }
    return logs;
}

inline constexpr Gf256Logs kGf256Logs = make_gf256_logs();

constexpr uint8_t gf256_mul(uint8_t a, uint8_t b) noexcept {
    if (a == 0 || b == 0) return 0;
    return kGf256Logs.exp[static_cast<size_t>(kGf256Logs.log[a]) + kGf256Logs.log[b]];
}

/// 1 / a; `a` must not be 0.
constexpr uint8_t gf256_inv(uint8_t a) noexcept {
    return kGf256Logs.exp[255U - kGf256Logs.log[a]];
}

// Whole blocks of any alignment. A source is the destination itself or does not overlap it.

/// dest += src
void gf256_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) noexcept;
/// dest = src * factor
void gf256_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes) noexcept;
/// dest += src * factor
void gf256_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes) noexcept;

}  // namespace ox::fountain
