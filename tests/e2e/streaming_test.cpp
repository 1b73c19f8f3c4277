// What reaches a launcher in a running session, and what it can ask for.

#include <gtest/gtest.h>

#include "base/clock.h"
#include "e2e/player.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

TEST(StreamingSession, WithoutAProbeTheStreamGoesWhereTheConnectionCameFrom) {
    Agent agent;
    Player player(agent, {.probe = false});
    ASSERT_TRUE(player.receive_frames(5));
    EXPECT_TRUE(
        agent.wait_for_log("UdpSender: no valid probe within 5s — using TCP-derived endpoint"));
}

TEST(StreamingSession, TenKeyframeRequestsInASecondGiveAtMostTwoKeyframes) {
    Agent agent;
    Player player(agent);
    // Beyond the time in which a request counts as answered by the keyframe of the start.
    ASSERT_TRUE(player.receive_frames(40));
    const size_t before = player.frames().size();
    int asked = 0;
    auto next = SteadyClock::now();
    ASSERT_TRUE(player.receive_until([&] {
        if (asked < 10 && SteadyClock::now() >= next) {
            player.say("request_idr");
            ++asked;
            next += 90ms;
        }
        return player.frames().size() >= before + 150;  // 2.5 s
    }));
    EXPECT_EQ(asked, 10);
    const size_t keyframes = player.keyframes_since(before);
    EXPECT_GE(keyframes, 1U);
    EXPECT_LE(keyframes, 2U);

    player.say("end_session");
    const auto line = agent.log().wait_for("Session end: media feedback", kPatience);
    ASSERT_TRUE(line.has_value());
    EXPECT_NE(line->find(std::string(" ") + std::to_string(keyframes) + " forced keyframe(s), "),
              std::string::npos)
        << *line;
}

}  // namespace
}  // namespace ox::test
