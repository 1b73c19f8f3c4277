#include "fountain/gf256_kernels.h"

#if defined(__x86_64__) || defined(__i386__)

#include <immintrin.h>

#include <cstring>

#define OX_SSSE3 __attribute__((target("ssse3")))
#define OX_AVX2 __attribute__((target("avx2")))

namespace ox::fountain {
namespace {

// ---- 16 bytes at a time -------------------------------------------------------------------------

OX_SSSE3 inline __m128i load16(const uint8_t* in) {
    __m128i value;
    std::memcpy(&value, in, sizeof value);
    return value;
}

OX_SSSE3 inline void store16(uint8_t* out, __m128i value) {
    std::memcpy(out, &value, sizeof value);
}

struct Nibbles16 {
    __m128i low;
    __m128i high;
};

OX_SSSE3 inline Nibbles16 load_nibbles16(uint8_t factor) {
    const Gf256NibbleProducts& products = kGf256NibbleProducts[factor];
    return {load16(products.low.data()), load16(products.high.data())};
}

OX_SSSE3 inline __m128i multiply16(const Nibbles16& products, __m128i value) {
    const __m128i mask = _mm_set1_epi8(15);
    const __m128i low = _mm_and_si128(value, mask);
    const __m128i high = _mm_and_si128(_mm_srli_epi64(value, 4), mask);
    return _mm_xor_si128(_mm_shuffle_epi8(products.low, low),
                         _mm_shuffle_epi8(products.high, high));
}

// The last 1 to 15 bytes go through a vector-sized copy, which is quicker than byte by byte.
OX_SSSE3 inline __m128i load_tail(const uint8_t* in, size_t bytes) {
    alignas(16) uint8_t buffer[16] = {};
    std::memcpy(buffer, in, bytes & 15U);
    return load16(buffer);
}

OX_SSSE3 inline void store_tail(uint8_t* out, __m128i value, size_t bytes) {
    alignas(16) uint8_t buffer[16];
    store16(buffer, value);
    std::memcpy(out, buffer, bytes & 15U);
}

OX_SSSE3 void ssse3_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) {
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16) {
        store16(dest + i, _mm_xor_si128(load16(dest + i), load16(src + i)));
    }
    for (; i < bytes; ++i)
        dest[i] ^= src[i];
}

OX_SSSE3 inline void sum_from16(uint8_t* dest, const uint8_t* const* sources, size_t count,
                                size_t from, size_t bytes) {
    size_t i = from;
    for (; i + 16 <= bytes; i += 16) {
        __m128i sum = load16(sources[0] + i);
        for (size_t s = 1; s < count; ++s)
            sum = _mm_xor_si128(sum, load16(sources[s] + i));
        store16(dest + i, sum);
    }
    for (; i < bytes; ++i)
        dest[i] = sum_bytes(sources, count, i);
}

OX_SSSE3 void ssse3_sum_mem(uint8_t* dest, const uint8_t* const* sources, size_t count,
                            size_t bytes) {
    sum_from16(dest, sources, count, 0, bytes);
}

OX_SSSE3 void ssse3_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes) {
    const Nibbles16 products = load_nibbles16(factor);
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16)
        store16(dest + i, multiply16(products, load16(src + i)));
    if (i < bytes) {
        store_tail(dest + i, multiply16(products, load_tail(src + i, bytes - i)), bytes - i);
    }
}

OX_SSSE3 void ssse3_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes) {
    const Nibbles16 products = load_nibbles16(factor);
    size_t i = 0;
    for (; i + 16 <= bytes; i += 16) {
        const __m128i product = multiply16(products, load16(src + i));
        store16(dest + i, _mm_xor_si128(load16(dest + i), product));
    }
    if (i < bytes) {
        const size_t left = bytes - i;
        const __m128i product = multiply16(products, load_tail(src + i, left));
        store_tail(dest + i, _mm_xor_si128(load_tail(dest + i, left), product), left);
    }
}

// ---- 32 bytes at a time -------------------------------------------------------------------------

OX_AVX2 inline __m256i load32(const uint8_t* in) {
    __m256i value;
    std::memcpy(&value, in, sizeof value);
    return value;
}

OX_AVX2 inline void store32(uint8_t* out, __m256i value) {
    std::memcpy(out, &value, sizeof value);
}

struct Nibbles32 {
    __m256i low;
    __m256i high;
};

OX_AVX2 inline Nibbles32 load_nibbles32(uint8_t factor) {
    const Gf256NibbleProducts& products = kGf256NibbleProducts[factor];
    return {_mm256_broadcastsi128_si256(load16(products.low.data())),
            _mm256_broadcastsi128_si256(load16(products.high.data()))};
}

OX_AVX2 inline __m256i multiply32(const Nibbles32& products, __m256i value) {
    const __m256i mask = _mm256_set1_epi8(15);
    const __m256i low = _mm256_and_si256(value, mask);
    const __m256i high = _mm256_and_si256(_mm256_srli_epi64(value, 4), mask);
    return _mm256_xor_si256(_mm256_shuffle_epi8(products.low, low),
                            _mm256_shuffle_epi8(products.high, high));
}

OX_AVX2 void avx2_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) {
    size_t i = 0;
    for (; i + 64 <= bytes; i += 64) {
        const __m256i first = _mm256_xor_si256(load32(dest + i), load32(src + i));
        const __m256i second = _mm256_xor_si256(load32(dest + i + 32), load32(src + i + 32));
        store32(dest + i, first);
        store32(dest + i + 32, second);
    }
    ssse3_add_mem(dest + i, src + i, bytes - i);
}

OX_AVX2 void avx2_sum_mem(uint8_t* dest, const uint8_t* const* sources, size_t count,
                          size_t bytes) {
    size_t i = 0;
    for (; i + 128 <= bytes; i += 128) {
        __m256i sums[4];
        for (size_t k = 0; k < 4; ++k)
            sums[k] = load32(sources[0] + i + 32 * k);
        for (size_t s = 1; s < count; ++s) {
            for (size_t k = 0; k < 4; ++k) {
                sums[k] = _mm256_xor_si256(sums[k], load32(sources[s] + i + 32 * k));
            }
        }
        for (size_t k = 0; k < 4; ++k)
            store32(dest + i + 32 * k, sums[k]);
    }
    for (; i + 32 <= bytes; i += 32) {
        __m256i sum = load32(sources[0] + i);
        for (size_t s = 1; s < count; ++s)
            sum = _mm256_xor_si256(sum, load32(sources[s] + i));
        store32(dest + i, sum);
    }
    if (i < bytes) sum_from16(dest, sources, count, i, bytes);
}

OX_AVX2 void avx2_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes) {
    const Nibbles32 products = load_nibbles32(factor);
    size_t i = 0;
    for (; i + 32 <= bytes; i += 32)
        store32(dest + i, multiply32(products, load32(src + i)));
    if (i < bytes) ssse3_mul_mem(dest + i, src + i, factor, bytes - i);
}

OX_AVX2 void avx2_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes) {
    const Nibbles32 products = load_nibbles32(factor);
    size_t i = 0;
    for (; i + 32 <= bytes; i += 32) {
        const __m256i product = multiply32(products, load32(src + i));
        store32(dest + i, _mm256_xor_si256(load32(dest + i), product));
    }
    if (i < bytes) ssse3_muladd_mem(dest + i, factor, src + i, bytes - i);
}

constexpr Gf256Kernels kSsse3Kernels{ssse3_add_mem, ssse3_sum_mem, ssse3_mul_mem, ssse3_muladd_mem};
constexpr Gf256Kernels kAvx2Kernels{avx2_add_mem, avx2_sum_mem, avx2_mul_mem, avx2_muladd_mem};

}  // namespace

const Gf256Kernels* ssse3_kernels() noexcept {
    return &kSsse3Kernels;
}
const Gf256Kernels* avx2_kernels() noexcept {
    return &kAvx2Kernels;
}

}  // namespace ox::fountain

#undef OX_SSSE3
#undef OX_AVX2

#else

namespace ox::fountain {
const Gf256Kernels* ssse3_kernels() noexcept {
    return nullptr;
}
const Gf256Kernels* avx2_kernels() noexcept {
    return nullptr;
}
}  // namespace ox::fountain

#endif
