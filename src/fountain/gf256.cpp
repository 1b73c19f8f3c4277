#include "fountain/gf256.h"

namespace ox::fountain {
namespace {

/// The products of one factor with the sixteen low and the sixteen high nibbles: two look-ups and
/// one addition multiply a byte.
struct alignas(32) NibbleProducts {
    std::array<uint8_t, 16> low{};
    std::array<uint8_t, 16> high{};

    [[nodiscard]] uint8_t times(uint8_t value) const noexcept {
        return low[value & 15U] ^ high[value >> 4U];
    }
};

constexpr std::array<NibbleProducts, 256> make_nibble_products() {
    std::array<NibbleProducts, 256> products{};
    for (unsigned factor = 0; factor < 256; ++factor) {
        for (unsigned nibble = 0; nibble < 16; ++nibble) {
            const auto f = static_cast<uint8_t>(factor);
            products[factor].low[nibble] = gf256_mul(f, static_cast<uint8_t>(nibble));
            products[factor].high[nibble] = gf256_mul(f, static_cast<uint8_t>(nibble << 4U));
        }
    }
    return products;
}

constexpr std::array<NibbleProducts, 256> kNibbleProducts = make_nibble_products();

}  // namespace

void gf256_add_mem(uint8_t* dest, const uint8_t* src, size_t bytes) noexcept {
    for (size_t i = 0; i < bytes; ++i)
        dest[i] ^= src[i];
}

void gf256_mul_mem(uint8_t* dest, const uint8_t* src, uint8_t factor, size_t bytes) noexcept {
    const NibbleProducts& products = kNibbleProducts[factor];
    for (size_t i = 0; i < bytes; ++i)
        dest[i] = products.times(src[i]);
}

void gf256_muladd_mem(uint8_t* dest, uint8_t factor, const uint8_t* src, size_t bytes) noexcept {
    const NibbleProducts& products = kNibbleProducts[factor];
    for (size_t i = 0; i < bytes; ++i)
        dest[i] ^= products.times(src[i]);
}

}  // namespace ox::fountain
