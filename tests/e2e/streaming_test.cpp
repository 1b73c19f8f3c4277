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

class Streaming : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Codecs, Streaming, testing::Values(0, 1),
                         [](const auto& codec) { return codec.param == 0 ? "H264" : "Hevc"; });

TEST_P(Streaming, EveryPictureArrivesInOrderAndNoneIsInvented) {
#if defined(__SANITIZE_THREAD__)
    if (GetParam() == 1) GTEST_SKIP() << "x265, built without ThreadSanitizer, stalls under it";
#endif
    Agent agent;
    Player player(agent, {.codec = GetParam()});
    ASSERT_TRUE(player.receive_frames(90));
    expect_faithful(player);
    // Of the first pictures only those are missing that were sent before the launcher listened.
    EXPECT_EQ(player.stamps().first, player.frames().front().frame_id);
    // Nothing else asked for a keyframe, so there is the first one alone.
    EXPECT_EQ(player.keyframes_since(0), 1U);

    const auto begin = SteadyClock::now();
    player.say("end_session");
    ASSERT_TRUE(player.receive_until([&] { return player.control().closed_within(0ms); }));
    EXPECT_LT(SteadyClock::now() - begin, 1s * kSlowdown);
    EXPECT_TRUE(agent.wait_for_log("Session: launcher requested end_session"));
    EXPECT_TRUE(agent.wait_for_log("Session end (client_end_session): "));
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
    EXPECT_TRUE(agent.wait_for_log("Listening for next launcher..."));
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

TEST(StreamingSession, GarbageOnTheControlChannelIsDroppedAndPingsAreAnswered) {
    Agent agent;
    Player player(agent);
    ASSERT_TRUE(player.receive_frames(5));
    player.control().send("not json\n\n[]\n{\"type\":5}\n" + std::string(9000, 'x') + "\n");
    player.say("ping", R"(,"ts":12345)");
    EXPECT_EQ(player.control().read_line(kPatience), R"({"ts":12345,"type":"pong"})");
    EXPECT_TRUE(agent.wait_for_log("TcpControlServer: oversized control message (9000 bytes)"));
    ASSERT_TRUE(player.receive_frames(30));
    expect_faithful(player);
}

}  // namespace
}  // namespace ox::test
