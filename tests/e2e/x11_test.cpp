// The desktop, from what was drawn to what a launcher decodes.

#include <gtest/gtest.h>

#include "e2e/watcher.h"
#include "support/xvfb.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace ox::test {
namespace {

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 352;
// No faster than a sanitized test can look at every pixel.
const Player::Setup kLauncher{
    .width = kWidth, .height = kHeight, .fps = 60 / kSlowdown, .bitrate_kbps = 8000 / kSlowdown};

/// An X server, and an agent that captures it.
struct CapturedScreen {
    CapturedScreen() {
        if (!server) return;
        number.emplace(server->display());
        agent.emplace(
            Agent::Setup{.environment = {"DISPLAY=" + server->display()}, .capture = "x11"});
    }
    std::unique_ptr<Xvfb> server = Xvfb::start({.screen = "640x352x24"});
    std::optional<DrawnNumber> number;
    std::optional<Agent> agent;
};

TEST(Desktop, TheStreamFollowsAScreenThatChangesItsSize) {
    CapturedScreen desktop;
    if (!desktop.server) GTEST_SKIP() << "no Xvfb on this machine";
    Player player(*desktop.agent, kLauncher);
    std::array<int, 3> colour{};
    bool all_of_it = false;  // edges included
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        ASSERT_EQ(picture.width, kWidth);
        ASSERT_EQ(picture.height, kHeight);
        all_of_it = true;
        for (uint32_t y = 0; y < kHeight; ++y) {
            for (size_t plane = 0; plane < 3; ++plane) {
                const uint32_t scale = plane == 0 ? 1 : 2;
                const uint8_t* row = picture.image.data[plane] +
                                     static_cast<int>(y / scale) * picture.image.linesize[plane];
                all_of_it = all_of_it && std::all_of(row, row + kWidth / scale, [&](int value) {
                                return std::abs(value - colour.at(plane)) <= 8;
                            });
            }
        }
    };
    ASSERT_TRUE(player.receive_frames(10));
    struct Step {
        uint32_t width, height, rgb;
        std::array<int, 3> yuv;  // BT.601, limited range
    };
    for (const auto& [width, height, rgb, yuv] :
         {Step{480, 200, 0xFF0000, {82, 90, 240}}, Step{333, 351, 0x00FF00, {145, 54, 34}},
          Step{640, 352, 0x0000FF, {41, 240, 110}}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        desktop.number->painter().resize_screen(width, height);
        desktop.number->painter().fill(0, 0, width, height, rgb);
        colour = yuv;
        EXPECT_TRUE(player.receive_until([&] { return all_of_it; }));
        all_of_it = false;
    }
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_TRUE(
        desktop.agent->wait_for_log("VideoEncoder: swscale BGRA 480x200 → yuv420p 640x352"));
}

TEST(Desktop, AKilledServerLeavesTheLastPictureAndTheSessionAlive) {
    CapturedScreen desktop;
    if (!desktop.server) GTEST_SKIP() << "no Xvfb on this machine";
    Player player(*desktop.agent, kLauncher);
    Watcher watcher(player, DrawnNumber::decode);
    for (int i = 0; i < 5; ++i)
        desktop.number->change();
    ASSERT_TRUE(player.receive_until([&] { return watcher.last() == 5; }));
    desktop.server->kill();
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_TRUE(desktop.agent->wait_for_log("X11Capture: the X server is gone"));
    player.say("request_idr");
    const size_t before = player.frames().size();
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    EXPECT_EQ(watcher.last(), 5U) << "not the last picture, from a keyframe";
    player.say("end_session");
    EXPECT_TRUE(desktop.agent->wait_for_log("Standalone session ended: client_end_session"));
}

}  // namespace
}  // namespace ox::test
