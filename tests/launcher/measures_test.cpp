// Latency histogram, jitter, and level and pitch of sound.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "launcher/jitter_meter.h"
#include "launcher/latency_histogram.h"
#include "launcher/tone_meter.h"

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

std::vector<int16_t> tone(double hertz, double amplitude, size_t pairs) {
    std::vector<int16_t> samples;
    for (size_t i = 0; i < pairs; ++i) {
        const double phase = 2 * std::numbers::pi * hertz * static_cast<double>(i) / 48000;
        const auto sample = static_cast<int16_t>(std::lround(amplitude * std::sin(phase)));
        samples.insert(samples.end(), {sample, sample});
    }
    return samples;
}

TEST(ToneMeter, TellsLevelAndPitch) {
    for (const double hertz : {55.0, 440.0, 997.3, 3000.0, 15000.0}) {
        ToneMeter meter;
        for (int i = 0; i < 3; ++i)
            meter.add(tone(hertz, 8192, ToneMeter::kWindow));
        for (const ToneReport& report : {meter.whole(), meter.latest()}) {
            EXPECT_NEAR(report.pitch_hz, hertz, 2.0);
            EXPECT_NEAR(report.level_dbfs, -12.04, 0.1) << hertz;
            EXPECT_NEAR(report.peak_dbfs, -12.04, 0.1) << hertz;
        }
    }
}

TEST(ToneMeter, KeepsTheWholeApartFromTheLatest) {
    ToneMeter meter;
    EXPECT_EQ(meter.whole().pitch_hz, 0.0);
    meter.add(tone(440, 32767, 2 * ToneMeter::kWindow));
    EXPECT_NEAR(meter.whole().level_dbfs, 0.0, 0.1);
    meter.add(std::vector<int16_t>(4 * ToneMeter::kWindow, 0));  // twice as many pairs as silence
    EXPECT_EQ(meter.latest().pitch_hz, 0.0);
    EXPECT_EQ(meter.latest().level_dbfs, ToneReport::kSilenceDbfs);
    EXPECT_NEAR(meter.whole().pitch_hz, 440.0, 2.0);
    EXPECT_NEAR(meter.whole().level_dbfs, -3.01, 0.1);
    // One channel alone has half the power.
    ToneMeter left;
    auto samples = tone(440, 32767, ToneMeter::kWindow);
    for (size_t i = 1; i < samples.size(); i += 2)
        samples[i] = 0;
    left.add(samples);
    EXPECT_NEAR(left.latest().level_dbfs, -3.01, 0.1);
}

}  // namespace
}  // namespace ox::launcher
