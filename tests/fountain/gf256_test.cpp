#include "fountain/gf256.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox::fountain {
namespace {

// The product of every two elements, by the schoolbook: shift, add, reduce.
TEST(Gf256, MultipliesBlocksAsTheFieldDoesAndInverts) {
    using Bytes = std::vector<uint8_t>;
    constexpr uint8_t kUntouched = 0x5A;
    for (unsigned factor = 0; factor < 256; ++factor) {
        const auto f = static_cast<uint8_t>(factor);
        Bytes values(256);
        Bytes products(256);
        for (unsigned value = 0; value < 256; ++value) {
            unsigned product = 0;
            for (unsigned bit = 0; bit < 8; ++bit)
                if ((value >> bit & 1U) != 0) product ^= factor << bit;
            for (unsigned bit = 15; bit >= 8; --bit)
                if ((product >> bit & 1U) != 0) product ^= kFieldPolynomial << (bit - 8);
            values[value] = static_cast<uint8_t>(value);
            products[value] = static_cast<uint8_t>(product);
            EXPECT_EQ(gf256_mul(f, values[value]), products[value]);
        }
        EXPECT_TRUE(factor == 0 || products[gf256_inv(f)] == 1);

        const size_t length = 256 - factor % 40;  // what follows stays as it is
        Bytes multiplied(256, kUntouched);
        gf256_mul_mem(multiplied.data(), values.data(), f, length);
        Bytes accumulated = values;
        gf256_muladd_mem(accumulated.data(), f, values.data(), length);
        Bytes added = products;
        gf256_add_mem(added.data(), values.data(), length);
        for (size_t i = 0; i < 256; ++i) {
            const bool inside = i < length;
            const auto sum = static_cast<uint8_t>(values[i] ^ products[i]);
            EXPECT_EQ(multiplied[i], inside ? products[i] : kUntouched);
            EXPECT_EQ(accumulated[i], inside ? sum : values[i]);
            EXPECT_EQ(added[i], inside ? sum : products[i]);
        }
    }
}

}  // namespace
}  // namespace ox::fountain
