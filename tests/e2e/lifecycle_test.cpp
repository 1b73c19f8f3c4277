// How sessions and the program itself end, hold and come back.

#include <gtest/gtest.h>
#include <signal.h>

#include "e2e/player.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

TEST(Stopping, SigtermEndsTheProgramPromptlyInEveryState) {
    struct State {
        const char* name;
        std::function<void(Agent&, std::optional<Player>&, std::optional<TcpClient>&)> enter;
    };
    const auto stream = [](Agent& agent, std::optional<Player>& player) {
        player.emplace(agent);
        ASSERT_TRUE(player->receive_frames(5));
    };
    const std::vector<State> states = {
        {"waiting for a launcher",
         [](Agent& agent, auto&, auto&) {
             ASSERT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
         }},
        {"auth line half read",
         [](Agent& agent, auto&, auto& client) {
             client.emplace(agent.control_port(), kPatience);
             client->send(R"({"type":"auth","tok)");
             ASSERT_TRUE(agent.wait_for_log("TcpControlServer: client connected from"));
         }},
        {"waiting for the probe",
         [](Agent& agent, auto&, auto& client) {
             client.emplace(agent.control_port(), kPatience);
             client->send(auth_line(R"(,"width":320,"height":180)"));
             ASSERT_TRUE(agent.wait_for_log("VideoEncoder: using libx264"));
         }},
        {"streaming", [&](Agent& agent, auto& player, auto&) { stream(agent, player); }},
        {"holding",
         [&](Agent& agent, auto& player, auto&) {
             stream(agent, player);
             player.reset();
             ASSERT_TRUE(
                 agent.wait_for_log("Session: launcher lost — holding the session for up to 60s"));
         }},
    };
    for (const auto& [name, enter] : states) {
        SCOPED_TRACE(name);
        Agent agent;
        std::optional<Player> player;
        std::optional<TcpClient> client;
        enter(agent, player, client);
        agent.expect_prompt_stop();
        EXPECT_TRUE(agent.wait_for_log("orvex-agent stopped (signal=15)"));
    }
}

TEST(Holding, ALauncherThatComesBackGetsFreshKeysAndTheNextFrameNumbers) {
    Agent agent;
    uint32_t last_frame = 0;
    std::string key;
    {
        Player player(agent);
        ASSERT_TRUE(player.receive_frames(30));
        last_frame = player.frames().back().frame_id;
        key = player.video_key();
    }
    ASSERT_TRUE(agent.wait_for_log("Session: launcher lost — holding the session for up to 60s"));
    {
        // A stranger in between does not end the hold.
        TcpClient stranger(agent.control_port(), kPatience);
        stranger.send(auth_line("", "let me out"));
        EXPECT_TRUE(stranger.closed_within(kPatience));
    }
    Player player(agent);
    EXPECT_NE(player.video_key(), key);
    ASSERT_TRUE(player.receive_frames(30));
    EXPECT_TRUE(player.frames().front().keyframe);
    EXPECT_GT(player.frames().front().frame_id, last_frame);
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_EQ(player.stamps().out_of_order + player.stamps().invented, 0U);
    EXPECT_EQ(player.stamps().first, player.frames().front().frame_id) << "capture started anew";
    EXPECT_EQ(agent.log().count("Session: launcher reconnected — resuming with an IDR"), 1U);
    EXPECT_EQ(agent.log().count("Standalone session ended"), 0U);
}

TEST(Holding, EndsWithItsDeadline) {
    Agent agent({.arguments = {"--reconnect-grace", "1"}});
    Player(agent).receive_frames(5);
    EXPECT_TRUE(agent.wait_for_log("Session: no reconnect within 1s — ending"));
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: disconnect_timeout"));
    Player next(agent);
    EXPECT_TRUE(next.receive_frames(5));
}

TEST(Holding, WithoutGraceTheStreamGoesOn) {
    Agent agent({.arguments = {"--reconnect-grace", "-5"}});  // counts as 0
    Player player(agent);
    ASSERT_TRUE(player.receive_frames(5));
    player.control().close();
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: client disconnected"));
    EXPECT_TRUE(player.receive_frames(60));
    EXPECT_EQ(agent.log().count("holding the session"), 0U);
    agent.expect_prompt_stop();
    EXPECT_TRUE(agent.wait_for_log("Session end (shutdown): "));
}

TEST(SecondLauncher, WaitsOutsideUntilTheFirstHasEnded) {
    Agent agent;
    Player first(agent);
    ASSERT_TRUE(first.receive_frames(10));
    TcpClient second(agent.control_port(), kPatience);
    second.send(auth_line());
    ASSERT_TRUE(first.receive_frames(60));
    EXPECT_FALSE(second.read_line(0ms).has_value()) << "answered during another's session";
    first.say("end_session");
    EXPECT_TRUE(second.closed_within(kPatience));
    ASSERT_TRUE(agent.wait_for_log("Listening for next launcher..."));
    // Its port is free again once the first is gone.
    first.control().close();
    TcpClient again(agent.control_port(), kPatience);
    again.send(auth_line());
    const auto answer = again.read_line(kPatience);
    ASSERT_TRUE(answer.has_value());
    EXPECT_NE(answer->find("session_ready"), std::string::npos);
}

}  // namespace
}  // namespace ox::test
