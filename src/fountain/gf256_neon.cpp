#include "fountain/gf256_kernels.h"

#if defined(__aarch64__) && defined(__ARM_NEON)

#include <arm_neon.h>
#include <sys/auxv.h>

#ifndef HWCAP_ASIMD
#define HWCAP_ASIMD (1UL << 1U)
#endif

namespace ox::fountain {
namespace {

inline uint8x16_t multiply16(uint8x16_t low, uint8x16_t high, uint8x16_t value) {
    return veorq_u8(vqtbl1q_u8(low, vandq_u8(value, vdupq_n_u8(15))),
                    vqtbl1q_u8(high, vshrq_n_u8(value, 4)));
}

void neon_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) {
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16) {
        vst1q_u8(dest + i, veorq_u8(vld1q_u8(dest + i), vld1q_u8(src + i)));
    }
    for (; i < bytes; ++i)
        dest[i] ^= src[i];
}

void neon_sum_mem(uint8_t* dest, const uint8_t* const* sources, size_t count, size_t bytes) {
    size_t i = 0;
    for (; i + 32 <= bytes; i += 32) {
        uint8x16_t first = vld1q_u8(sources[0] + i);
        uint8x16_t second = vld1q_u8(sources[0] + i + 16);
        for (size_t s = 1; s < count; ++s) {
            first = veorq_u8(first, vld1q_u8(sources[s] + i));
            second = veorq_u8(second, vld1q_u8(sources[s] + i + 16));
        }
        vst1q_u8(dest + i, first);
        vst1q_u8(dest + i + 16, second);
    }
    for (; i < bytes; ++i)
        dest[i] = sum_bytes(sources, count, i);
}

void neon_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes) {
    const Gf256NibbleProducts& products = kGf256NibbleProducts[factor];
    const uint8x16_t low = vld1q_u8(products.low.data());
    const uint8x16_t high = vld1q_u8(products.high.data());
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16) {
        vst1q_u8(dest + i, multiply16(low, high, vld1q_u8(src + i)));
    }
    for (; i < bytes; ++i)
        dest[i] = multiply_by_nibbles(products, src[i]);
}

void neon_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes) {
    const Gf256NibbleProducts& products = kGf256NibbleProducts[factor];
    const uint8x16_t low = vld1q_u8(products.low.data());
    const uint8x16_t high = vld1q_u8(products.high.data());
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16) {
        const uint8x16_t product = multiply16(low, high, vld1q_u8(src + i));
        vst1q_u8(dest + i, veorq_u8(vld1q_u8(dest + i), product));
    }
    for (; i < bytes; ++i)
        dest[i] ^= multiply_by_nibbles(products, src[i]);
}

constexpr Gf256Kernels kNeonKernels{neon_add_mem, neon_sum_mem, neon_mul_mem, neon_muladd_mem};

}  // namespace

const Gf256Kernels* neon_kernels() noexcept {
    return (::getauxval(AT_HWCAP) & HWCAP_ASIMD) != 0 ? &kNeonKernels : nullptr;
}

}  // namespace ox::fountain

#else

namespace ox::fountain {
const Gf256Kernels* neon_kernels() noexcept {
    return nullptr;
}
}  // namespace ox::fountain

#endif
