#include "fountain/gf256.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

namespace ox::fountain {
namespace {

class Gf256KernelTest : public testing::TestWithParam<Gf256Path> {};

// Every length up to several vectors, at every alignment, and the bytes behind stay untouched.
TEST_P(Gf256KernelTest, GivesTheFieldsBytesAtAnyLengthAndAlignment) {
    const Gf256Kernels* kernels = gf256_kernels(GetParam());
    if (kernels == nullptr) GTEST_SKIP() << "this processor does not have these instructions";
    using Bytes = std::vector<uint8_t>;
    std::mt19937 random(7);
    const auto random_bytes = [&random] {
        Bytes bytes(320);
        for (uint8_t& byte : bytes)
            byte = static_cast<uint8_t>(random());
        return bytes;
    };
    std::array<Bytes, 5> sources;
    std::array<const uint8_t*, 5> from{};
    for (size_t i = 0; i < sources.size(); ++i) {
        sources[i] = random_bytes();
        from[i] = sources[i].data() + i;
    }
    for (size_t length = 0; length <= 270; ++length) {
        const size_t at = length % 33;
        const size_t count = length % sources.size() + 1;
        const auto factor = static_cast<uint8_t>(length == 100 ? 0 : random());
        const Bytes before = random_bytes();
        // Added, summed, multiplied, accumulated.
        std::array<Bytes, 4> got{before, before, before, before};
        kernels->add_mem(got[0].data() + at, from[3], length);
        kernels->sum_mem(got[1].data() + at, from.data(), count, length);
        kernels->mul_mem(got[2].data() + at, from[3], factor, length);
        kernels->muladd_mem(got[3].data() + at, factor, from[3], length);
        std::array<Bytes, 4> wanted{before, before, before, before};
        for (size_t i = 0; i < length; ++i) {
            const uint8_t product = gf256_mul(factor, from[3][i]);
            wanted[0][at + i] ^= from[3][i];
            wanted[1][at + i] = 0;
            for (size_t s = 0; s < count; ++s)
                wanted[1][at + i] ^= from[s][i];
            wanted[2][at + i] = product;
            wanted[3][at + i] ^= product;
        }
        ASSERT_EQ(got, wanted) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, Gf256KernelTest,
                         testing::Values(Gf256Path::kPortable, Gf256Path::kSsse3, Gf256Path::kAvx2,
                                         Gf256Path::kNeon));

}  // namespace
}  // namespace ox::fountain
