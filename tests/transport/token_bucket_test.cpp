#include "transport/token_bucket.h"

#include <gtest/gtest.h>

namespace ox {
namespace {

// At 1,000,000 bytes/s a byte is a microsecond and the bucket holds 16,000.
TEST(TokenBucket, HoldsSixteenMillisecondsAndSleepsBetweenFiftyMicrosecondsAndOneMillisecond) {
    const SteadyClock::time_point start{std::chrono::hours(100)};
    TokenBucket bucket(1'000'000, start);
    const std::tuple<int64_t, size_t, int64_t, bool> steps[] = {
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
    };
    for (const auto& [at_us, length, sleep_us, overrun] : steps) {
        const auto decision = bucket.take(length, start + std::chrono::microseconds(at_us));
        EXPECT_EQ(decision.sleep.count(), sleep_us) << at_us << ", " << length;
        EXPECT_EQ(decision.overrun, overrun) << at_us << ", " << length;
    }
}

}  // namespace
}  // namespace ox
