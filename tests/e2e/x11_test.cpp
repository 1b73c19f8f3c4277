// An X11 desktop, from drawn to decoded pixels.

#include <gtest/gtest.h>

#include "e2e/player.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;

TEST(DesktopStream, FollowsAScreenThatChangesItsSizeAndKeepsTheLastPictureOfAKilledServer) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    XPainter painter(server->display());
    Agent agent({.environment = {"DISPLAY=" + server->display()}, .capture = "x11"});
    // A sanitized test is slow to check every pixel.
    Player player(
        agent, {.width = kWidth, .height = kHeight, .fps = 60 / kSlowdown, .bitrate_kbps = 4000});
    int luma = 0;
    bool all_match = false;  // edges included
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        ASSERT_EQ(picture.width, kWidth);
        ASSERT_EQ(picture.height, kHeight);
        all_match = true;
        for (size_t y = 0; y < kHeight; ++y)
            for (const int value : picture.luma.bytes.subspan(y * picture.luma.stride, kWidth))
                all_match = all_match && std::abs(value - luma) <= 8;
    };
    ASSERT_TRUE(player.receive_frames(10));
    for (const auto& [width, height, rgb, expected] : {std::tuple{480U, 200U, 0xFF0000U, 82},
                                                       {333U, 351U, 0x00FF00U, 145},
                                                       {640U, 480U, 0x0000FFU, 41}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        painter.resize_screen(width, height);
        painter.fill(0, 0, width, height, rgb);
        luma = expected;  // BT.601, limited range
        EXPECT_TRUE(player.receive_until([&] { return all_match; }));
        all_match = false;
    }
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_TRUE(agent.wait_for_log("VideoEncoder: swscale BGRA 480x200 → yuv420p 640x480"));

    server->kill();
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_TRUE(agent.wait_for_log("X11Capture: the X server is gone"));
    EXPECT_TRUE(agent.wait_for_log("the source of the pictures is gone — input is with"));
    player.say("request_idr");
    const size_t before = player.frames().size();
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    EXPECT_TRUE(all_match) << "not the last picture, from a keyframe";
    player.say("end_session");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
}

}  // namespace
}  // namespace ox::test
