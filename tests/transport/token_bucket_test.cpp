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
TEST(TokenBucket, HoldsSixteenMillisecondsAndSleepsBetweenFiftyMicrosecondsAndOneMillisecond) {
    run(1'000'000, {
                       {0, 16'000, 0, false},        // starts full
                       {950, 1'000, 0, true},        // 50 short: not worth a sleep; bucket empty
                       {1'899, 1'000, 51, false},    // 51 short
                       {1'899, 1'000, 1000, false},  // waits for exactly its tokens
                       {1'899, 1'001, 1000, true},   // capped, one byte short
                       {1'899, 60'000, 1000, true},
                       {2'899, 1'000, 0, false},  // never negative: 1 ms brings 1,000 bytes
                       {2'899, 800, 800, false},
                       {3'699, 800, 0, false},          // the slept time counts twice
                       {60'000'000, 16'000, 0, false},  // a minute fills it once
                       {60'000'000, 51, 51, false},
                   });
}

}  // namespace
}  // namespace ox
