#include "transport/token_bucket.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

using std::chrono::microseconds;

struct Step {
    int64_t at_us;  // since the bucket was made
    size_t length;
    int64_t sleep_us;
    bool overrun;
};

void run(uint64_t bytes_per_second, const std::vector<Step>& steps) {
    const SteadyClock::time_point start{std::chrono::hours(100)};
    TokenBucket bucket(bytes_per_second, start);
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step& step = steps[i];
        const auto decision = bucket.take(step.length, start + microseconds(step.at_us));
        EXPECT_EQ(decision.sleep.count(), step.sleep_us) << "step " << i;
        EXPECT_EQ(decision.overrun, step.overrun) << "step " << i;
    }
}

// At 1,000,000 bytes/s a byte is a microsecond and the bucket holds 16,000.
TEST(TokenBucket, FillsToSixteenMillisecondsAndNoFurther) {
    run(1'000'000, {
                       {0, 16'000, 0, false},           // starts full
                       {0, 100, 100, false},            // empty: waits for exactly its tokens
                       {60'000'000, 16'000, 0, false},  // a minute fills it once
                       {60'000'000, 51, 51, false},
                   });
}

TEST(TokenBucket, SleepsAboveFiftyMicrosecondsAndUpToAThousand) {
    run(1'000'000, {
                       {0, 16'000, 0, false},
                       {950, 1'000, 0, true},      // 50 short: not worth a sleep; bucket empty
                       {1'899, 1'000, 51, false},  // 51 short
                       {1'899, 1'000, 1000, false},
                       {1'899, 1'001, 1000, true},  // capped, one byte short
                       {1'899, 60'000, 1000, true},
                       {2'899, 1'000, 0, false},  // never negative: 1 ms brings 1,000 bytes
                   });
}

// The slept time counts twice: granted at once, and again by the next refill.
TEST(TokenBucket, RefillCoversTheSleptIntervalAgain) {
    run(1'000'000, {
                       {0, 16'000, 0, false},
                       {0, 800, 800, false},
                       {800, 800, 0, false},
                       {800, 800, 800, false},
                   });
}

// 15,000 kbit/s of video is paced at 2,812,500 bytes/s with a bucket of 45,000 bytes.
TEST(TokenBucket, VideoRateWithFractionsOfAMicrosecond) {
    run(2'812'500, {
                       {0, 45'000, 0, false},
                       {0, 1'200, 426, true},    // 426.67 us, cut: 1.9 bytes short
                       {426, 1'200, 0, true},    // 0.67 us short
                       {427, 1'200, 425, true},  // 2.8125 bytes since, 425.67 us short
                   });
}

}  // namespace
}  // namespace ox
