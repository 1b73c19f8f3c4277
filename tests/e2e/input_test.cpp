// Input and feedback on the way from the launcher to the session.

#include <gtest/gtest.h>
#include <unistd.h>

#include "base/clock.h"
#include "e2e/player.h"
#include "launcher/feedback_packets.h"
#include "launcher/input_channel.h"
#include "launcher/input_script.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;
using launcher::InputChannel;

std::unique_ptr<InputChannel> open_channel(const Agent& agent, const std::vector<uint8_t>& key) {
    auto channel = std::make_unique<InputChannel>();
    std::string error;
    EXPECT_TRUE(channel->open("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 2),
                              std::span(key).first<32>(), error))
        << error;
    return channel;
}

/// Asks for a keyframe until one comes: those that come too soon after another one count as
/// answered by it.
bool keyframe_comes(Player& player, InputChannel& channel, const InputPacket& request) {
    const size_t before = player.frames().size();
    size_t asked_at = 0;
    return player.receive_until([&] {
        if (player.frames().size() >= asked_at) {
            channel.send(request);
            asked_at = player.frames().size() + 20;
        }
        return player.keyframes_since(before) > 0;
    });
}

TEST(Feedback, BringsKeyframesAndIsClassified) {
    Agent agent({.arguments = {"--media-rfi"}, .input = true});
    Player player(agent);
    const auto channel = open_channel(agent, player.keys().input_key);
    // Long after the keyframe of the start, which would count as the answer.
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_EQ(player.keyframes_since(1), 0U);

    // Ten requests in a second give one keyframe or two.
    int asked = 0;
    auto next = SteadyClock::now();
    ASSERT_TRUE(player.receive_until([&] {
        if (asked < 10 && SteadyClock::now() >= next) {
            player.say("request_idr");
            ++asked;
            next += 90ms;
        }
        return player.frames().size() >= 60 + 150;  // 2.5 s
    }));
    EXPECT_EQ(asked, 10);
    EXPECT_GE(player.keyframes_since(1), 1U);
    EXPECT_LE(player.keyframes_since(1), 2U);

    for (const auto& request :
         {launcher::make_keyframe_request(),
          launcher::make_media_feedback({.keyframe_wanted = true}),
          launcher::make_lost_frames_request(
              {.last_delivered = 100, .first_missing = 101, .last_missing = 103})})
        EXPECT_TRUE(keyframe_comes(player, *channel, request));
    channel->send(launcher::make_lost_frames_request({.last_delivered = 0, .first_missing = 1}));
    EXPECT_TRUE(agent.wait_for_log("Session: RFI request rejected (last_delivered == 0)"));
    channel->send(launcher::make_lost_frames_request(
        {.last_delivered = 7, .first_missing = 8, .last_missing = 9, .attempt = 3}));
    EXPECT_TRUE(agent.wait_for_log("Session: RFI request rejected (attempt > 2)"));
    EXPECT_EQ(agent.log().count("RFI request rejected"), 2U);

    player.say("end_session");
    const auto sent = channel->counters();
    EXPECT_TRUE(agent.wait_for_log(
        "Session end: media feedback " +
        std::to_string(sent.keyframe_requests + sent.media_feedback + sent.lost_frames_requests) +
        " packet(s), " + std::to_string(player.keyframes_since(1)) + " forced keyframe(s), "));
    EXPECT_TRUE(agent.wait_for_log(
        "Session end: P5 RFI requests=" + std::to_string(sent.lost_frames_requests) +
        " valid=" + std::to_string(sent.lost_frames_requests - 2) +
        " idr_fallbacks=" + std::to_string(sent.lost_frames_requests - 2) + " supported=0"));
}

TEST(Input, WithoutADeviceEverythingIsReadOnceAndTheSessionGoesOn) {
    if (::access("/dev/uinput", W_OK) == 0) GTEST_SKIP() << "this machine would be typed into";
    std::vector<launcher::InputStep> steps;
    std::string error;
    ASSERT_TRUE(launcher::parse_input_script("demo", steps, error)) << error;

    Agent agent({.input = true});
    uint64_t applied = 0;
    for (size_t launcher = 1; launcher <= 2; ++launcher) {
        SCOPED_TRACE(launcher);
        Player player(agent);
        ASSERT_TRUE(player.receive_frames(40));
        // Numbers begin at 0 with each launcher; copies of clicks and keys count once.
        const auto channel = open_channel(agent, player.keys().input_key);
        for (const auto& step : steps)
            channel->send(step.packet);
        applied += steps.size();
        // What was sent before this has been read when the keyframe comes.
        EXPECT_TRUE(keyframe_comes(player, *channel, launcher::make_keyframe_request()));
        if (launcher == 2) player.say("end_session");
    }
    EXPECT_TRUE(agent.wait_for_log("(headless — events decoded but not injected)", 2));
    EXPECT_TRUE(agent.wait_for_log("Session end (client_end_session)"));
    const auto stopped = agent.log().wait_for("InputReceiver: stopped (", kPatience, 2);
    ASSERT_TRUE(stopped.has_value());
    EXPECT_NE(stopped->find(" received, " + std::to_string(applied) + " applied)"),
              std::string::npos)
        << *stopped;
}

}  // namespace
}  // namespace ox::test
