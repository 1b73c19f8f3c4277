// Input and feedback on the way from the launcher to the session.

#include <gtest/gtest.h>

#include "e2e/player.h"
#include "launcher/feedback_packets.h"
#include "launcher/input_channel.h"

namespace ox::test {
namespace {

using launcher::InputChannel;

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
    uint64_t packets = 0;
    uint64_t about_losses = 0;
    // Each launcher's numbers begin at 0.
    for (const bool comes_back : {false, true}) {
        Player player(agent);
        InputChannel channel;
        std::string error;
        ASSERT_TRUE(channel.open("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 2),
                                 std::span(player.keys().input_key).first<32>(), error))
            << error;
        // Long after the keyframe of the start, which would count as the answer.
        ASSERT_TRUE(player.receive_frames(60));
        EXPECT_EQ(player.keyframes_since(1), 0U);
        for (const auto& request :
             {launcher::make_keyframe_request(),
              launcher::make_media_feedback({.keyframe_wanted = true}),
              launcher::make_lost_frames_request(
                  {.last_delivered = 100, .first_missing = 101, .last_missing = 103})})
            EXPECT_TRUE(keyframe_comes(player, channel, request));
        if (comes_back) {
            channel.send(
                launcher::make_lost_frames_request({.last_delivered = 0, .first_missing = 1}));
            EXPECT_TRUE(agent.wait_for_log("Session: RFI request rejected (last_delivered == 0)"));
            player.say("end_session");
        }
        const auto sent = channel.counters();
        about_losses += sent.lost_frames_requests;
        packets += sent.keyframe_requests + sent.media_feedback + sent.lost_frames_requests;
    }
    EXPECT_TRUE(agent.wait_for_log("Session end: media feedback " + std::to_string(packets) +
                                   " packet(s), "));
    const std::string valid = std::to_string(about_losses - 1);
    EXPECT_TRUE(agent.wait_for_log("Session end: P5 RFI requests=" + std::to_string(about_losses) +
                                   " valid=" + valid + " idr_fallbacks=" + valid + " supported=0"));
}

}  // namespace
}  // namespace ox::test
