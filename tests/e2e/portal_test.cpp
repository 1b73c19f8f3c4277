// A Wayland desktop, from the compositor's pictures to decoded ones. The session bus, the PipeWire
// daemon and its session manager are real; portal and compositor are simulated.

#include <gtest/gtest.h>

#include "e2e/player.h"
#include "support/eventually.h"
#include "support/pipewire_source.h"
#include "support/wayland_desktop.h"

namespace ox::test {
namespace {

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 352;
// No faster than a sanitized test can look at every pixel.
const Player::Setup kLauncher{
    .width = kWidth, .height = kHeight, .fps = 60 / kSlowdown, .bitrate_kbps = 8000 / kSlowdown};

struct Wayland : WaylandTest {
    [[nodiscard]] std::unique_ptr<PipewireSource> moving_screen() const {
        return std::make_unique<PipewireSource>(desktop_->pipewire_socket(),
                                                moving_pictures(kWidth, kHeight));
    }
    [[nodiscard]] size_t calls(const std::string& call) const {
        return desktop_->portal_report().count(call);
    }
    [[nodiscard]] Agent::Setup automatic() const {
        return {.environment = desktop_->environment(), .capture = "auto"};
    }
};

TEST_F(Wayland, NobodyHasToWaitForAnApprovalDialog) {
    start_portal(0, {"Start=silent"});
    Agent agent(automatic());
    TcpClient launcher(agent.control_port(), kPatience);
    launcher.send(auth_line());
    ASSERT_TRUE(launcher.read_line(kPatience));
    ASSERT_TRUE(eventually([&] { return calls("Start") == 1; }));
    EXPECT_TRUE(agent.screen().wait_for("confirm the window on this PC", kPatience));
    launcher.send("{\"type\":\"end_session\"}\n");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
    // The dialog goes, and nothing is put in its place.
    EXPECT_TRUE(eventually([&] { return calls("Close Request") == 1; }));
    EXPECT_EQ(agent.log().count("falling back") + agent.log().count("[ERROR]"), 0U);
    launcher.close();
    launcher = TcpClient(agent.control_port(), kPatience);
    launcher.send(auth_line());
    ASSERT_TRUE(eventually([&] { return calls("Start") == 2; }));
    agent.expect_prompt_stop();
    EXPECT_EQ(agent.log().count("falling back") + agent.log().count("[ERROR]"), 0U);
}

TEST_F(Wayland, AShareThatItsOwnerStopsEndsTheSessionAndALostOneComesBack) {
    auto screen = moving_screen();
    start_portal(screen->node(), {"token=the choice"});
    Agent agent(automatic());
    {
        Player player(agent, kLauncher);
        uint32_t last = 0;
        int different = 0;
        player.on_picture = [&](const launcher::DecodedPicture& picture) {
            const uint32_t stamp = launcher::read_frame_stamp(picture.luma).value_or(0);
            EXPECT_GE(stamp, last) << "an older or damaged picture";
            different += stamp > last ? 1 : 0;
            last = stamp;
        };
        ASSERT_TRUE(player.receive_until([&] { return different >= 40; }, 3 * kPatience));
        desktop_->stop_sharing();
        ASSERT_TRUE(player.is_ended());
    }
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: capture_failed"));
    EXPECT_TRUE(agent.screen().wait_for("! Sharing the screen was stopped on this PC", kPatience));
    ASSERT_TRUE(Player(agent, kLauncher).receive_frames(10));
    ASSERT_TRUE(agent.wait_for_log("holding the session"));
    desktop_->stop_sharing();
    ASSERT_TRUE(eventually([&] { return agent.log().count("ended: capture_failed") == 2; }));
    Player player(agent, kLauncher);
    ASSERT_TRUE(player.receive_frames(10));
    EXPECT_EQ(calls("Start"), 3U);
    EXPECT_EQ(calls("restore_token"), 0U) << "the owner was not asked";
    EXPECT_TRUE(agent.screen().wait_for("Resolved: Screen capture failed", kPatience));

    // The compositor ends, and the portal is in its way for a moment.
    ASSERT_TRUE(desktop_->start_portal({"CreateSession=2"}));
    screen.reset();
    ASSERT_TRUE(player.receive_until(
        [&] { return agent.log().count("portal refused CreateSession") > 0; }, 3 * kPatience));
    EXPECT_TRUE(agent.screen().wait_for("mouse and keyboard are off", kPatience));
    screen = moving_screen();
    start_portal(screen->node());
    ASSERT_TRUE(player.receive_until(
        [&] { return agent.log().count("Session: pictures come again") > 0; }, 3 * kPatience));
    EXPECT_EQ(calls("restore_token=the choice"), 1U);
    EXPECT_EQ(agent.log().count("input is withheld"), 1U);
    EXPECT_TRUE(player.receive_frames(10));
    player.say("end_session");
    EXPECT_TRUE(eventually([&] { return calls("Close Session") == 1; }, kPatience));
}

TEST_F(Wayland, WhatWasDeclinedIsToldSoAndAskedOnceMoreForALauncherThatReturns) {
    const auto screen = moving_screen();
    start_portal(screen->node(), {"Start=1", "once"});
    Agent agent(automatic());
    {
        Player player(agent, kLauncher);
        ASSERT_TRUE(player.receive_frames(10));
        EXPECT_TRUE(agent.screen().wait_for("! Sharing the screen was declined", kPatience));
        EXPECT_EQ(agent.log().count("not approved in time"), 0U);
    }
    Player player(agent, kLauncher);
    ASSERT_TRUE(player.receive_until(
        [&] { return agent.log().count("Session: the screen is shared now") == 1; }));
    EXPECT_TRUE(agent.screen().wait_for("Resolved: Screen capture failed", kPatience));
    EXPECT_TRUE(player.receive_frames(10));
}

}  // namespace
}  // namespace ox::test
