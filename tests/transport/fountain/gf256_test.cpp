#include "transport/fountain/gf256.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace ox::fountain {
namespace {

// Multiplication of polynomials over GF(2), reduced bit by bit.
uint8_t slow_product(unsigned a, unsigned b) {
    unsigned product = 0;
    for (unsigned bit = 0; bit < 8; ++bit) {
        if ((b >> bit & 1U) != 0) product ^= a << bit;
    }
    for (unsigned bit = 15; bit >= 8; --bit) {
        if ((product >> bit & 1U) != 0) product ^= 0x14DU << (bit - 8);
    }
    return static_cast<uint8_t>(product);
}

TEST(Gf256, MultipliesAndDividesAsPolynomials) {
    for (unsigned a = 0; a < 256; ++a) {
        for (unsigned b = 0; b < 256; ++b) {
            const uint8_t product = gf256_mul(static_cast<uint8_t>(a), static_cast<uint8_t>(b));
            ASSERT_EQ(product, slow_product(a, b)) << a << " * " << b;
            if (b == 0) continue;
            ASSERT_EQ(gf256_div(product, static_cast<uint8_t>(b)), a);
        }
        if (a != 0) {
            ASSERT_EQ(gf256_mul(static_cast<uint8_t>(a), gf256_inv(static_cast<uint8_t>(a))), 1);
        }
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
    for (auto& source : sources)
        source = random_bytes();

    for (size_t length = 0; length <= 270; ++length) {
        const size_t at = length % 33;
        const auto factor = static_cast<uint8_t>(length == 100 ? 0 : random());
        const std::vector<uint8_t> before = random_bytes();
        std::vector<uint8_t> added = before;
        std::vector<uint8_t> summed = before;
        std::vector<uint8_t> multiplied = before;
        std::vector<uint8_t> accumulated = before;
        const size_t count = length % kSources + 1;
        std::vector<const uint8_t*> pointers;
        for (size_t s = 0; s < count; ++s)
            pointers.push_back(sources[s].data() + s);

        kernels->add_mem(added.data() + at, sources[0].data() + 3, length);
        kernels->sum_mem(summed.data() + at, pointers.data(), count, length);
        kernels->mul_mem(multiplied.data() + at, sources[0].data() + 3, factor, length);
        kernels->muladd_mem(accumulated.data() + at, factor, sources[0].data() + 3, length);

        for (size_t i = 0; i < kRoom; ++i) {
            const bool inside = i >= at && i < at + length;
            const uint8_t source = inside ? sources[0][3 + i - at] : uint8_t{0};
            uint8_t sum = inside ? uint8_t{0} : before[i];
            for (size_t s = 0; inside && s < count; ++s)
                sum ^= sources[s][s + i - at];
            const uint8_t product = gf256_mul(factor, source);
            ASSERT_EQ(added[i], before[i] ^ source) << length << " bytes, byte " << i;
            ASSERT_EQ(summed[i], sum) << length << " bytes, byte " << i;
            ASSERT_EQ(multiplied[i], inside ? product : before[i]) << length << ", byte " << i;
            ASSERT_EQ(accumulated[i], before[i] ^ product) << length << " bytes, byte " << i;
        }
    }
}

std::string path_name(const testing::TestParamInfo<Gf256Path>& info) {
    switch (info.param) {
        case Gf256Path::kPortable:
            return "portable";
        case Gf256Path::kSsse3:
            return "ssse3";
        case Gf256Path::kAvx2:
            return "avx2";
        case Gf256Path::kNeon:
            return "neon";
    }
    return "unknown";
}

INSTANTIATE_TEST_SUITE_P(AllPaths, Gf256KernelTest,
                         testing::Values(Gf256Path::kPortable, Gf256Path::kSsse3, Gf256Path::kAvx2,
                                         Gf256Path::kNeon),
                         path_name);

}  // namespace
}  // namespace ox::fountain
