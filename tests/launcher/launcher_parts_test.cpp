// Figures, input scripts and sealing.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <sstream>
#include <vector>

#include "launcher/client/input_channel.h"
#include "launcher/client/timing_stats.h"
#include "launcher/frame_stamp.h"
#include "launcher/input_script.h"

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

TEST(StampChecker, FindsWrongPictures) {
    StampChecker checker;
    // Frames 3, 4 and 7 show the right pictures; 8 repeats a picture, 9 shows an unknown one.
    for (const auto& [frame, stamp] :
         {std::pair{3U, 0xFFFFFFFF}, {4U, 0U}, {7U, 3U}, {8U, 3U}, {9U, 77U}})
        checker.add(frame, stamp);
    // Grey is neither black nor white: unreadable.
    const std::vector<uint8_t> grey(256 * 8, 125);
    checker.add(10, read_frame_stamp({.bytes = grey, .stride = 256, .width = 256, .height = 8}));
    const auto& report = checker.report();
    EXPECT_EQ((std::array<uint64_t, 6>{report.read, report.first, report.last, report.out_of_order,
                                       report.invented, report.unreadable}),
              (std::array<uint64_t, 6>{5, 0xFFFFFFFF, 77, 1, 2, 1}));
}

// Each step as "time kind data0 data1 buttons".
std::string steps_of(const std::string& script) {
    std::vector<InputStep> steps;
    std::string error;
    if (!parse_input_script(script, steps, error)) return error;
    std::ostringstream text;
    for (const InputStep& step : steps)
        text << step.at.count() << " " << +step.packet.kind << " " << +step.packet.data0 << " "
             << +step.packet.data1 << " " << +step.packet.buttons << "|";
    return text.str();
}

TEST(InputScript, BecomesTimedPackets) {
    const std::pair<const char*, const char*> cases[] = {
        {"move 5 -7;wait 30\nmove -1 0", "0 0 5 -7 0|30 0 -1 0 0|"},
        {"wheel 2; wheel -1", "0 2 0 240 0|0 2 0 -120 0|"},
        {"press left; move 1 1; click right; release left",
         "0 1 0 0 1|0 0 1 1 1|0 1 0 0 3|20 1 0 0 1|20 1 0 0 0|"},
        {"key right", "0 3 39 589 0|20 4 39 589 0|"},  // 77 + 256 * 2
        // Keys that are down at the end are released, the last one first.
        {"down shift; down f10; press middle; up shift",
         "0 3 160 42 0|0 3 121 68 0|0 1 0 0 4|0 4 160 42 4|0 1 0 0 0|0 4 121 68 0|"},
        {"move 1 2 3", "input script: cannot read 'move 1 2 3'"},
        {"move 40000 0", "input script: cannot read 'move 40000 0'"},
        {"wait 1; click thumb", "input script: cannot read ' click thumb'"},
    };
    for (const auto& [script, expected] : cases)
        EXPECT_EQ(steps_of(script), expected) << script;
}

// The wire vectors show that the nonce counts within a session.
TEST(InputSealer, NeverUsesANonceTwice) {
    constexpr std::array<uint8_t, 32> kKey{9};
    // Two sessions under one key, as with a platform's master key.
    const auto one = InputSealer(kKey).seal({}).value();
    const auto other = InputSealer(kKey).seal({}).value();
    EXPECT_FALSE(std::equal(one.begin(), one.begin() + 8, other.begin()));
    InputSealer last(kKey, {}, UINT32_MAX);
    EXPECT_TRUE(last.seal({}));
    EXPECT_FALSE(last.seal({})) << "the count is used up";
}

}  // namespace
}  // namespace ox::launcher
