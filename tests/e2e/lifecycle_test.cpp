// How sessions and the program itself end, hold and come back.

#include <gtest/gtest.h>
#include <signal.h>

#include "e2e/player.h"

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

}  // namespace
}  // namespace ox::test
