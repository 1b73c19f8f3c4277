#include "transport/fountain/gf256.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace ox::fountain {
namespace {

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
