#include "transport/fountain/gf256.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace ox::fountain {
namespace {

// Multiplication of polynomials over GF(2), reduced bit by bit.
uint8_t slow_product(unsigned a, unsigned b) {
    unsigned product = 0;
    for (unsigned bit = 0; bit < 8; ++bit)
        product ^= (b >> bit & 1U) * (a << bit);
    for (unsigned bit = 15; bit >= 8; --bit)
        product ^= (product >> bit & 1U) * (0x14DU << (bit - 8));
    return static_cast<uint8_t>(product);
}

TEST(Gf256, MultipliesAndDividesAsPolynomials) {
    for (unsigned i = 0; i < 65536; ++i) {
        const auto a = static_cast<uint8_t>(i);
        const auto b = static_cast<uint8_t>(i >> 8U);
        ASSERT_EQ(gf256_mul(a, b), slow_product(a, b)) << +a << " * " << +b;
        if (b == 0) continue;
        ASSERT_EQ(gf256_div(gf256_mul(a, b), b), a);
        ASSERT_EQ(gf256_mul(b, gf256_inv(b)), 1);
    }
}

class Gf256KernelTest : public testing::TestWithParam<Gf256Path> {};

// Every length up to several vectors, at every alignment, and the bytes behind stay untouched.
TEST_P(Gf256KernelTest, GivesTheFieldsBytesAtAnyLengthAndAlignment) {
    const Gf256Kernels* kernels = gf256_kernels(GetParam());
    if (kernels == nullptr) GTEST_SKIP() << "this processor does not have these instructions";
    constexpr size_t kRoom = 320;
    constexpr size_t kSources = 5;
    std::mt19937 random(7);
    const auto random_bytes = [&random] {
        std::vector<uint8_t> bytes(kRoom);
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(random());
        return bytes;
    };
    std::vector<std::vector<uint8_t>> sources(kSources);
    std::vector<const uint8_t*> pointers;
    for (auto& source : sources) {
        source = random_bytes();
        pointers.push_back(source.data() + pointers.size());
    }
    for (size_t length = 0; length <= 270; ++length) {
        const size_t at = length % 33;
        const size_t count = length % kSources + 1;
        const auto factor = static_cast<uint8_t>(length == 100 ? 0 : random());
        const std::vector<uint8_t> before = random_bytes();
        auto added = before, summed = before, multiplied = before, accumulated = before;
        kernels->add_mem(added.data() + at, pointers[3], length);
        kernels->sum_mem(summed.data() + at, pointers.data(), count, length);
        kernels->mul_mem(multiplied.data() + at, pointers[3], factor, length);
        kernels->muladd_mem(accumulated.data() + at, factor, pointers[3], length);

        auto want_added = before, want_summed = before, want_multiplied = before,
             want_accumulated = before;
        for (size_t i = 0; i < length; ++i) {
            const uint8_t product = gf256_mul(factor, pointers[3][i]);
            want_added[at + i] ^= pointers[3][i];
            want_multiplied[at + i] = product;
            want_accumulated[at + i] ^= product;
            want_summed[at + i] = 0;
            for (size_t s = 0; s < count; ++s)
                want_summed[at + i] ^= pointers[s][i];
        }
        ASSERT_EQ(added, want_added) << length;
        ASSERT_EQ(summed, want_summed) << length;
        ASSERT_EQ(multiplied, want_multiplied) << length;
        ASSERT_EQ(accumulated, want_accumulated) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, Gf256KernelTest,
                         testing::Values(Gf256Path::kPortable, Gf256Path::kSsse3, Gf256Path::kAvx2,
                                         Gf256Path::kNeon));

}  // namespace
}  // namespace ox::fountain
