#include "app/session/keyframe_policy.h"

#include <gtest/gtest.h>

#include "app/session/session_signals.h"

namespace ox {
namespace {

TEST(KeyframeRequest, OneAlreadyUnderWayAnswersIt) {
    struct Case {
        float rtt_ms;
        int64_t after_us;  ///< time from the keyframe to the request
        bool in_flight;
    };
    const Case cases[] = {
        {20, 169'999, true},     {20, 170'000, false},   {0, 249'999, true},
        {0, 250'000, false},     {-1, 249'999, true},    {999, 1'148'999, true},
        {999, 1'149'000, false}, {1000, 250'000, false},
    };
    constexpr int64_t kSent = 5'000'000;
    for (const Case& c : cases) {
        SessionSignals signals;
        signals.rtt_ms = c.rtt_ms;
        signals.last_keyframe_sent_us = kSent;
        request_keyframe(signals, kSent + c.after_us);
        EXPECT_EQ(signals.keyframe_requested, !c.in_flight) << c.rtt_ms << " " << c.after_us;
        EXPECT_EQ(signals.answered_in_flight, c.in_flight ? 1U : 0U);
    }
    // Before the first keyframe nothing is under way, however early the clock.
    SessionSignals fresh;
    request_keyframe(fresh, 10);
    EXPECT_TRUE(fresh.keyframe_requested);
}

}  // namespace
}  // namespace ox
