// Latency histogram and jitter.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "launcher/jitter_meter.h"
#include "launcher/latency_histogram.h"

namespace ox::launcher {
namespace {

TEST(LatencyHistogram, PercentilesAreWithinABucketOfTheSortedSamples) {
    std::mt19937_64 random(1);
    for (const uint64_t limit : {200ULL, 5'000ULL, 3'000'000ULL, 1ULL << 33}) {
        LatencyHistogram histogram;
        std::vector<uint64_t> samples;
        for (int i = 0; i < 5000; ++i) {
            samples.push_back(random() % limit);
            histogram.add(samples.back());
            samples.back() = std::min(samples.back(), LatencyHistogram::kMaxUs);
        }
        std::ranges::sort(samples);
        for (const double percent : {0.0, 1.0, 50.0, 90.0, 99.0, 100.0}) {
            const auto rank = static_cast<size_t>(std::ceil(percent / 100 * 5000));
            const uint64_t exact = samples[rank == 0 ? 0 : rank - 1];
            const uint64_t got = histogram.percentile_us(percent);
            EXPECT_GE(got, exact) << percent << " of " << limit;
            EXPECT_LE(got, exact + exact / 128 + 1) << percent << " of " << limit;
        }
        EXPECT_EQ(histogram.min_us(), samples.front());
        EXPECT_EQ(histogram.max_us(), samples.back());
    }
}

TEST(JitterMeter, MeasuresSpacingWhateverTheClocks) {
    JitterMeter even;
    JitterMeter uneven;
    for (uint64_t n = 0; n < 500; ++n) {
        even.add(n * 16'667, UINT64_MAX - 1'000'000 + n * 16'667);  // arrivals wrap on the way
        uneven.add(n * 16'667, 5'000'000 + n * 16'667 + n % 2 * 3'000);
    }
    EXPECT_EQ(even.jitter_ms(), 0.0);
    EXPECT_NEAR(uneven.jitter_ms(), 3.0, 0.001);
}

}  // namespace
}  // namespace ox::launcher
