#include "app/session_handover.h"

#include <gtest/gtest.h>

#include <thread>

#include "base/clock.h"

namespace ox {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

PrepareSessionParams session(const char* id) {
    PrepareSessionParams params;
    params.session_id = id;
    return params;
}

const auto kNever = [] { return false; };

TEST(SessionHandover, OnlyTheNewestIsTakenAndOnlyOnce) {
    SessionHandover slot;
    slot.offer(session("a"));
    slot.offer(session("b"));
    EXPECT_EQ(slot.take(seconds(5), kNever)->session_id, "b");
    EXPECT_FALSE(slot.take(milliseconds(1), kNever).has_value());
}

TEST(SessionHandover, ATerminateIsMeantForTheSessionBeforeTheNextOffer) {
    SessionHandover slot;
    slot.request_terminate();
    EXPECT_TRUE(slot.terminate_requested());
    slot.offer(session("a"));
    EXPECT_FALSE(slot.terminate_requested());
    slot.request_terminate();
    slot.take(seconds(5), kNever);
    EXPECT_TRUE(slot.terminate_requested());
}

TEST(SessionHandover, AnOfferWakesTheWaiterAndAStopEndsTheWait) {
    SessionHandover slot;
    std::jthread backend([&] { slot.offer(session("a")); });
    EXPECT_EQ(slot.take(seconds(30), kNever)->session_id, "a");
    std::atomic<bool> stop{false};
    std::jthread stopper([&] { stop = true; });
    const auto before = SteadyClock::now();
    EXPECT_FALSE(slot.take(seconds(30), [&] { return stop.load(); }).has_value());
    EXPECT_LT(SteadyClock::now() - before, seconds(5));
}

}  // namespace
}  // namespace ox
