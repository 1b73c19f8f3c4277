// What the launcher's figures are made of: latencies, frame numbers in pictures.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "launcher/audio_track.h"
#include "launcher/frame_stamp.h"
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
    }
}

TEST(AudioClock, FollowsPausesButNotBurstsAfterADelay) {
    AudioClock clock;
    uint32_t sequence = 0xFFFFFFF0;
    const auto place = [&](uint64_t sent_ms) {
        const auto us =
            clock.place({.opus = {}, .sequence = sequence++, .timestamp = sent_ms * 1000});
        return us ? static_cast<int64_t>(*us / 1000) : -1;
    };
    EXPECT_EQ(place(0), -1) << "a rebuilt frame tells no time";
    // The first frames come late and in a burst: from the burst's end on the times are right.
    for (int i = 0; i < 40; ++i)
        place(1200);
    EXPECT_NEAR(static_cast<double>(place(1200)), 1200, 60);
    int64_t last = place(1205);
    for (uint64_t ms = 1210; ms < 2000; ms += 5)
        EXPECT_EQ(place(ms), last += 5);
    // 250 ms of the agent's sound are sent at once.
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(place(2250), last += 5);
    for (uint64_t ms = 2255; ms < 3000; ms += 5)
        EXPECT_EQ(place(ms), last += 5);
    // The recording pauses for a second.
    for (uint64_t ms = 4000; ms < 4200; ms += 5)
        place(ms);
    EXPECT_NEAR(static_cast<double>(place(4200)), 4200, 60);
}

TEST(StampChecker, FindsWrongPictures) {
    StampChecker checker;
    // Frame numbers 3, 4, 7 were shown with the pictures they should; 8 repeats a picture, 9 shows
    // one from nowhere.
    for (const auto& [frame, stamp] :
         {std::pair{3U, 0xFFFFFFFF}, {4U, 0U}, {7U, 3U}, {8U, 3U}, {9U, 77U}})
        checker.add(frame, stamp);
    // Grey is neither black nor white: no number to be read.
    const std::vector<uint8_t> grey(256 * 8, 125);
    checker.add(10, read_frame_stamp({.bytes = grey, .stride = 256, .width = 256, .height = 8}));
    const auto& report = checker.report();
    EXPECT_EQ((std::array<uint64_t, 6>{report.read, report.first, report.last, report.out_of_order,
                                       report.invented, report.unreadable}),
              (std::array<uint64_t, 6>{5, 0xFFFFFFFF, 77, 1, 2, 1}));
}

}  // namespace
}  // namespace ox::launcher
