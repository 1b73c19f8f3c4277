#include "fountain/gf256.h"

#include <atomic>
#include <cstring>

#include "fountain/gf256_kernels.h"

namespace ox::fountain {
namespace {

uint64_t load_word(const uint8_t* in) noexcept {
    uint64_t word;
    std::memcpy(&word, in, sizeof word);
    return word;
}

void store_word(uint8_t* out, uint64_t word) noexcept {
    std::memcpy(out, &word, sizeof word);
}

constexpr size_t kWord = sizeof(uint64_t);

void portable_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) {
    size_t i = 0;
    for (; i + kWord <= bytes; i += kWord) {
        store_word(dest + i, load_word(dest + i) ^ load_word(src + i));
    }
    for (; i < bytes; ++i)
        dest[i] ^= src[i];
}

void portable_sum_mem(uint8_t* dest, const uint8_t* const* sources, size_t count, size_t bytes) {
    size_t i = 0;
    for (; i + kWord <= bytes; i += kWord) {
        uint64_t sum = load_word(sources[0] + i);
        for (size_t s = 1; s < count; ++s)
            sum ^= load_word(sources[s] + i);
        store_word(dest + i, sum);
    }
    for (; i < bytes; ++i)
        dest[i] = sum_bytes(sources, count, i);
}

void portable_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes) {
    const Gf256NibbleProducts& products = kGf256NibbleProducts[factor];
    for (size_t i = 0; i < bytes; ++i)
        dest[i] = multiply_by_nibbles(products, src[i]);
}

void portable_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes) {
    const Gf256NibbleProducts& products = kGf256NibbleProducts[factor];
    for (size_t i = 0; i < bytes; ++i)
        dest[i] ^= multiply_by_nibbles(products, src[i]);
}

constexpr Gf256Kernels kPortableKernels{portable_add_mem, portable_sum_mem, portable_mul_mem,
                                        portable_muladd_mem};

constinit std::atomic<const Gf256Kernels*> active_kernels{&kPortableKernels};

bool agrees_with_field(const Gf256Kernels& kernels) noexcept {
    std::array<uint8_t, 256> values{};
    for (unsigned i = 0; i < values.size(); ++i)
        values[i] = static_cast<uint8_t>(i);
    std::array<uint8_t, 256> product{};
    for (unsigned factor = 0; factor < 256; ++factor) {
        const auto f = static_cast<uint8_t>(factor);
        kernels.mul_mem(product.data(), values.data(), f, values.size());
        for (unsigned i = 0; i < values.size(); ++i) {
            if (product[i] != gf256_mul(f, values[i])) return false;
        }
        kernels.muladd_mem(product.data(), f, values.data(), values.size());
        for (const uint8_t left : product) {
            if (left != 0) return false;
        }
    }
    return true;
}

}  // namespace

const Gf256Kernels* gf256_kernels(Gf256Path path) noexcept {
    switch (path) {
        case Gf256Path::kPortable:
            return &kPortableKernels;
#if defined(__x86_64__) || defined(__i386__)
        case Gf256Path::kSsse3:
            return __builtin_cpu_supports("ssse3") ? ssse3_kernels() : nullptr;
        case Gf256Path::kAvx2:
            return __builtin_cpu_supports("avx2") ? avx2_kernels() : nullptr;
#else
        case Gf256Path::kSsse3:
        case Gf256Path::kAvx2:
            return nullptr;
#endif
        case Gf256Path::kNeon:
            return neon_kernels();
    }
    return nullptr;
}

int gf256_init() noexcept {
    for (const Gf256Path path :
         {Gf256Path::kAvx2, Gf256Path::kSsse3, Gf256Path::kNeon, Gf256Path::kPortable}) {
        const Gf256Kernels* kernels = gf256_kernels(path);
        if (kernels == nullptr) continue;
        if (!agrees_with_field(*kernels)) return -1;
        active_kernels.store(kernels, std::memory_order_relaxed);
        return 0;
    }
    return -1;
}

const Gf256Kernels& gf256_active() noexcept {
    return *active_kernels.load(std::memory_order_relaxed);
}

}  // namespace ox::fountain
