// Sessions from a launcher's view: their end, their hold and the program's stop.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>
#include <optional>

#include "e2e/player.h"
#include "launcher/client/feedback_packets.h"
#include "launcher/client/input_channel.h"
#include "support/sockets.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

// Other tests stop an agent that listens or streams.
TEST(Stopping, SigtermEndsTheProgramPromptlyInEveryState) {
    const std::pair<const char*, std::string> states[] = {
        {"TcpControlServer: client connected from", R"({"type":"auth","tok)"},
        // Then waits for the probe.
        {"VideoEncoder: using libx264", auth_line(R"(,"width":320,"height":180)")},
        {"launcher lost — holding the session for up to 60s", ""}};
    for (const auto& [log, sent] : states) {
        SCOPED_TRACE(log);
        Agent agent;
        std::optional<TcpClient> launcher;
        if (sent.empty()) {
            ASSERT_TRUE(Player(agent).receive_frames(5));
        } else {
            launcher.emplace(agent.control_port(), kPatience).send(sent);
        }
        ASSERT_TRUE(agent.wait_for_log(log));
        agent.expect_prompt_stop();
        EXPECT_TRUE(agent.wait_for_log("orvex-agent stopped (signal=15)"));
    }
}

TEST(Session, IsHeldForItsLauncherAloneWhichGetsFreshKeysAndTheNextFrameNumbers) {
    Agent agent;
    auto player = std::make_optional<Player>(agent);
    ASSERT_TRUE(player->receive_frames(30));
    const uint32_t last_frame = player->frames().back().frame_id;
    const Secret key = player->keys().video_key.copy();
    player.reset();
    ASSERT_TRUE(agent.wait_for_log("Session: launcher lost — holding the session for up to 60s"));
    {
        // A stranger does not end the hold.
        TcpClient stranger(agent.control_port(), kPatience);
        stranger.send(auth_line("", "let me out"));
        EXPECT_TRUE(stranger.closed_within(kPatience));
    }
    player.emplace(agent);
    EXPECT_NE(player->keys().video_key, key);
    ASSERT_TRUE(player->receive_frames(30));
    EXPECT_TRUE(player->frames().front().keyframe);
    EXPECT_EQ(player->stats().frames_withheld + player->stats().keyframe_requests, 0U);
    EXPECT_GT(player->frames().front().frame_id, last_frame);
    EXPECT_EQ(player->pictures(), player->frames().size());
    EXPECT_EQ(player->stamps().out_of_order + player->stamps().invented, 0U);
    EXPECT_EQ(player->stamps().first, player->frames().front().frame_id) << "capture started anew";
    EXPECT_EQ(agent.log().count("Session: launcher reconnected — resuming with an IDR"), 1U);
    EXPECT_EQ(agent.log().count("Standalone session ended"), 0U);

    // A second launcher waits, and the port is free again after the first one's session.
    TcpClient second(agent.control_port(), kPatience);
    second.send(auth_line());
    ASSERT_TRUE(player->receive_frames(60));
    EXPECT_FALSE(second.read_line(0ms).has_value()) << "answered during another's session";
    player->say("end_session");
    EXPECT_TRUE(second.closed_within(kPatience));
    ASSERT_TRUE(agent.wait_for_log("Listening for next launcher..."));
    player.reset();
    EXPECT_NO_THROW(Player{agent});
}

TEST(Session, WithoutAProbeAndWithoutGraceTheStreamGoesWhereTheConnectionCameFrom) {
    Agent agent({.arguments = {"--reconnect-grace", "-5"}});  // counts as 0
    Player player(agent, {.probe = false});
    ASSERT_TRUE(player.receive_frames(5));
    EXPECT_TRUE(agent.wait_for_log("no valid probe within 5s — using TCP-derived endpoint"));
    player.control().close();
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: client disconnected"));
    EXPECT_TRUE(player.receive_frames(60));
    EXPECT_EQ(agent.log().count("holding the session"), 0U);
    agent.expect_prompt_stop();
    EXPECT_TRUE(agent.wait_for_log("Session end (shutdown): "));
}

/// Sends `text` and expects no answer but the end of the connection.
void say(const UniqueFd& socket, const std::string& text) {
    ASSERT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
    char answer = 0;
    EXPECT_LE(::recv(socket.get(), &answer, 1, 0), 0);
}

TEST(Panic, EndsTheSessionAndEveryLaterOneUntilTheAgentIsStartedAgain) {
    for (const bool by_signal : {true, false}) {
        SCOPED_TRACE(by_signal ? "signal" : "socket");
        Agent agent;
        const std::string path = agent.folder_file("orvex-agent-panic.sock");
        auto player = std::make_optional<Player>(agent);
        ASSERT_TRUE(player->receive_frames(10));
        EXPECT_TRUE(agent.wait_for_log("Panic: local stop channel at " + path));
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
        if (by_signal) {
            agent.process().signal(SIGUSR1);
        } else {
            const UniqueFd typing = connect_unix(path);
            say(connect_unix(path), "STOP");
            ASSERT_TRUE(player->receive_frames(90)) << "ended by another word";
            say(typing, "please stop now\n");
            EXPECT_TRUE(agent.wait_for_log("PANIC: local stop requested — ending the session now"));
        }
        EXPECT_TRUE(player->is_ended());
        EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic"));
        player.reset();

        Player next(agent);
        EXPECT_TRUE(next.is_ended());
        EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic", 2));
        // The agent itself keeps running, stops with status 0 and removes its socket.
        ASSERT_TRUE(agent.process().running());
        agent.expect_prompt_stop();
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

TEST(Feedback, CausesKeyframesForEachLauncherAndIsCounted) {
    Agent agent({.arguments = {"--media-rfi"}, .input = true});
    uint64_t requests = 0;
    // Each launcher's sequence numbers start at 0.
    for (const bool last : {false, true}) {
        Player player(agent);
        launcher::InputChannel channel;
        std::string error;
        ASSERT_TRUE(channel.open("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 2),
                                 std::span(player.keys().input_key).first<32>(), error))
            << error;
        // Long after the first keyframe, which would count as the answer.
        ASSERT_TRUE(player.receive_frames(60));
        EXPECT_EQ(player.keyframes_since(1), 0U);
        EXPECT_TRUE(player.receive_until([&, next_request = size_t{0}]() mutable {
            if (player.frames().size() >= next_request) {
                channel.send(launcher::make_lost_frames_request(
                    {.last_delivered = 100, .first_missing = 101, .last_missing = 103}));
                next_request = player.frames().size() + 20;
            }
            return player.keyframes_since(1) > 0;
        }));
        if (last) {
            channel.send(
                launcher::make_lost_frames_request({.last_delivered = 0, .first_missing = 1}));
            EXPECT_TRUE(agent.wait_for_log("Session: RFI request rejected (last_delivered == 0)"));
            player.say("end_session");
        }
        requests += channel.counters().lost_frames_requests;
    }
    const std::string all = std::to_string(requests);
    const std::string valid = std::to_string(requests - 1);
    EXPECT_TRUE(agent.wait_for_log("Session end: media feedback " + all + " packet(s), "));
    EXPECT_TRUE(agent.wait_for_log("RFI requests=" + all + " valid=" + valid +
                                   " idr_fallbacks=" + valid + " supported=0"));
}

}  // namespace
}  // namespace ox::test
