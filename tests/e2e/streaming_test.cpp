// What reaches a launcher in a running session, and what it can ask for.

#include <gtest/gtest.h>

#include "base/clock.h"
#include "e2e/player.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

/// The stream so far: whole, in order, each picture the one that its number says.
void expect_faithful(const Player& player) {
    const auto& frames = player.frames();
    ASSERT_FALSE(frames.empty());
    EXPECT_TRUE(frames.front().keyframe);
    for (size_t i = 1; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i].frame_id, frames[i - 1].frame_id + 1);
    }
    EXPECT_EQ(player.pictures(), frames.size()) << "a frame was not decodable, or held back";
    EXPECT_EQ(player.stamps().read, frames.size());
    EXPECT_EQ(player.stamps().unreadable, 0U);
    EXPECT_EQ(player.stamps().out_of_order, 0U);
    EXPECT_EQ(player.stamps().invented, 0U);
    EXPECT_EQ(player.stats().undecryptable, 0U);
    EXPECT_EQ(player.stats().malformed, 0U);
}

TEST(StreamingSession, TheNextLauncherGetsANewSession) {
    Agent agent;
    std::string first_key;
    for (int session = 1; session <= 2; ++session) {
        Player player(agent);
        ASSERT_TRUE(player.receive_frames(20));
        expect_faithful(player);
        EXPECT_EQ(player.frames().front().frame_id, 0U);
        EXPECT_NE(player.video_key(), first_key);
        first_key = player.video_key();
        player.say("end_session");
        ASSERT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session",
                                       static_cast<size_t>(session)));
    }
    agent.expect_prompt_stop();
}

TEST(StreamingSession, WithoutAProbeTheStreamGoesWhereTheConnectionCameFrom) {
    Agent agent;
    Player player(agent, {.probe = false});
    ASSERT_TRUE(player.receive_frames(5));
    EXPECT_TRUE(
        agent.wait_for_log("UdpSender: no valid probe within 5s — using TCP-derived endpoint"));
}

TEST(StreamingSession, SizesThatTheEncoderCannotTakeAreMadeToFit) {
    Agent agent;
    Player player(agent, {.width = 301, .height = 5, .fps = 500, .bitrate_kbps = 1});
    uint32_t width = 0;
    uint32_t height = 0;
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        width = picture.width;
        height = picture.height;
    };
    ASSERT_TRUE(player.receive_frames(3));
    EXPECT_EQ(width, 300U);
    EXPECT_EQ(height, 16U);
    EXPECT_TRUE(agent.wait_for_log("Streaming: H.264 300x16@120fps 200kbps → 127.0.0.1:" +
                                   std::to_string(agent.port_base()) + " (encoder=libx264)"));
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
