// Sessions as a launcher sees them, and how they and the program itself end, hold and come back.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <filesystem>

#include "e2e/player.h"
#include "launcher/feedback_packets.h"
#include "launcher/input_channel.h"
#include "support/unix_socket.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

TEST(Stopping, SigtermEndsTheProgramPromptlyInEveryState) {
    struct Launcher {
        std::optional<Player> player;
        std::optional<TcpClient> silent;
    };
    const auto say = [](const std::string& text) {
        return [text](Agent& agent, Launcher& launcher) {
            launcher.silent.emplace(agent.control_port(), kPatience);
            launcher.silent->send(text);
        };
    };
    const auto stream = [](Agent& agent, Launcher& launcher) {
        launcher.player.emplace(agent);
        ASSERT_TRUE(launcher.player->receive_frames(5));
    };
    const struct {
        const char* log;  ///< tells that the state is reached
        std::function<void(Agent&, Launcher&)> enter;
    } states[] = {
        {"TcpControlServer: listening on port", [](auto&, auto&) {}},
        {"TcpControlServer: client connected from", say(R"({"type":"auth","tok)")},
        // Waits for the probe then.
        {"VideoEncoder: using libx264", say(auth_line(R"(,"width":320,"height":180)"))},
        {"VideoEncoder: using libx264", stream},
        {"Session: launcher lost — holding the session for up to 60s",
         [&](Agent& agent, Launcher& launcher) {
             stream(agent, launcher);
             launcher.player.reset();
         }},
    };
    for (const auto& [log, enter] : states) {
        SCOPED_TRACE(log);
        Agent agent;
        Launcher launcher;
        enter(agent, launcher);
        ASSERT_TRUE(agent.wait_for_log(log));
        agent.expect_prompt_stop();
        EXPECT_TRUE(agent.wait_for_log("orvex-agent stopped (signal=15)"));
    }
}

TEST(Session, IsHeldForItsLauncherAloneWhichGetsFreshKeysAndTheNextFrameNumbers) {
    Agent agent;
    uint32_t last_frame = 0;
    Secret key;
    {
        Player player(agent);
        ASSERT_TRUE(player.receive_frames(30));
        last_frame = player.frames().back().frame_id;
        key = player.keys().video_key.copy();
    }
    ASSERT_TRUE(agent.wait_for_log("Session: launcher lost — holding the session for up to 60s"));
    {
        // A stranger in between does not end the hold.
        TcpClient stranger(agent.control_port(), kPatience);
        stranger.send(auth_line("", "let me out"));
        EXPECT_TRUE(stranger.closed_within(kPatience));
    }
    auto player = std::make_optional<Player>(agent);
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

    // One that comes meanwhile waits outside, and the port is free again once the first is gone.
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
    EXPECT_TRUE(
        agent.wait_for_log("UdpSender: no valid probe within 5s — using TCP-derived endpoint"));
    player.control().close();
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: client disconnected"));
    EXPECT_TRUE(player.receive_frames(60));
    EXPECT_EQ(agent.log().count("holding the session"), 0U);
    agent.expect_prompt_stop();
    EXPECT_TRUE(agent.wait_for_log("Session end (shutdown): "));
}

/// What `text` gets for an answer: nothing, and the end of the connection.
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
            ASSERT_TRUE(player->receive_frames(90)) << "ended by a word that is none";
            say(typing, "please stop now\n");
            EXPECT_TRUE(agent.wait_for_log("PANIC: local stop requested — ending the session now"));
        }
        EXPECT_TRUE(player->is_ended());
        EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic"));
        player.reset();

        Player next(agent);
        EXPECT_TRUE(next.is_ended());
        EXPECT_TRUE(agent.wait_for_log("Standalone session ended: merchant_panic", 2));
        // The agent itself goes on, ends with status 0 when told, and takes its socket along.
        ASSERT_TRUE(agent.process().running());
        agent.expect_prompt_stop();
        EXPECT_FALSE(std::filesystem::exists(path));
    }
}

/// Asks for a keyframe until one comes: those that come too soon after another one count as
/// answered by it.
bool keyframe_comes(Player& player, launcher::InputChannel& channel, const InputPacket& request) {
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
        launcher::InputChannel channel;
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
