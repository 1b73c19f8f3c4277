#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "fountain/tables.h"

namespace ox::fountain {

/// Arithmetic in GF(256), the field of byte-sized elements that the heavy rows of the fountain code
/// use: single elements through logarithm tables, whole blocks through the processor's byte
/// shuffles. Stateless and safe from every thread.

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

constexpr uint8_t gf256_add(uint8_t a, uint8_t b) noexcept {
    return a ^ b;
}

constexpr uint8_t gf256_mul(uint8_t a, uint8_t b) noexcept {
    if (a == 0 || b == 0) return 0;
    return kGf256Logs.exp[static_cast<size_t>(kGf256Logs.log[a]) + kGf256Logs.log[b]];
}

/// a / b; `b` must not be 0.
constexpr uint8_t gf256_div(uint8_t a, uint8_t b) noexcept {
    if (a == 0) return 0;
    return kGf256Logs.exp[static_cast<size_t>(kGf256Logs.log[a]) + 255U - kGf256Logs.log[b]];
}

/// 1 / a; `a` must not be 0.
constexpr uint8_t gf256_inv(uint8_t a) noexcept {
    return gf256_div(1, a);
}

/// One implementation of the block operations. Blocks need no alignment and may be of any length;
/// a source may be the
/// destination itself but must not overlap it otherwise.
struct Gf256Kernels {
    /// dest += src
    void (*add_mem)(uint8_t* dest, const uint8_t* src, size_t bytes);
    /// dest = sum of `count` (at least 1) sources
    void (*sum_mem)(uint8_t* dest, const uint8_t* const* sources, size_t count, size_t bytes);
    /// dest = src * factor
    void (*mul_mem)(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes);
    /// dest += src * factor
    void (*muladd_mem)(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes);
};

enum class Gf256Path : uint8_t { kPortable, kSsse3, kAvx2, kNeon };

/// The named implementation, or null when this build or this processor does not have it. All give
/// the same bytes.
const Gf256Kernels* gf256_kernels(Gf256Path path) noexcept;

/// Picks the fastest implementation of this processor and checks it against the field. Returns 0,
/// or another value when the check fails. Until it has run, the portable implementation works.
int gf256_init() noexcept;

/// The implementation in use.
const Gf256Kernels& gf256_active() noexcept;

inline void gf256_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) noexcept {
    gf256_active().add_mem(dest, src, bytes);
}
inline void gf256_sum_mem(uint8_t* dest, const uint8_t* const* sources, size_t count,
                          size_t bytes) noexcept {
    gf256_active().sum_mem(dest, sources, count, bytes);
}
inline void gf256_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor,
                          size_t bytes) noexcept {
    gf256_active().mul_mem(dest, src, factor, bytes);
}
inline void gf256_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src,
                             size_t bytes) noexcept {
    gf256_active().muladd_mem(dest, factor, src, bytes);
}

}  // namespace ox::fountain
