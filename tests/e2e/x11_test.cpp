// The desktop, from what was drawn to what a launcher decodes.

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "e2e/player.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace ox::test {
namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr int kFps = 60 / kSlowdown;  // no faster than a sanitized test can look at every pixel
const Player::Setup kLauncher{
    .width = kWidth, .height = kHeight, .fps = kFps, .bitrate_kbps = 4000};

/// A desktop on which so much can move that the bitrate matters.
class DesktopStream : public testing::Test {
  protected:
    void SetUp() override {
        server_ = Xvfb::start({});
        if (!server_) GTEST_SKIP() << "no Xvfb on this machine";
        painter_.emplace(server_->display());
    }
    [[nodiscard]] Agent::Setup capture() const {
        return {.environment = {"DISPLAY=" + server_->display()}, .capture = "x11"};
    }
    bool receive_until(Player& player, const std::function<bool()>& done) {
        // Chance has a part in what is waited for.
        return player.receive_until(
            [&] {
                for (int i = 0; i < 10; ++i)
                    painter_->fill(static_cast<int>(random_() % 40) * 16,
                                   static_cast<int>(random_() % 30) * 16, 16, 16,
                                   static_cast<uint32_t>(random_()));
                return done();
            },
            3 * kPatience);
    }

    std::unique_ptr<Xvfb> server_;
    std::optional<XPainter> painter_;
    std::minstd_rand random_{1};
};

TEST_F(DesktopStream, FollowsAScreenThatChangesItsSizeAndKeepsTheLastPictureOfAKilledServer) {
    Agent agent(capture());
    Player player(agent, kLauncher);
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
          Step{640, 480, 0x0000FF, {41, 240, 110}}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        painter_->resize_screen(width, height);
        painter_->fill(0, 0, width, height, rgb);
        colour = yuv;
        EXPECT_TRUE(player.receive_until([&] { return all_of_it; }));
        all_of_it = false;
    }
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_TRUE(agent.wait_for_log("VideoEncoder: swscale BGRA 480x200 → yuv420p 640x480"));

    server_->kill();
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_TRUE(agent.wait_for_log("X11Capture: the X server is gone"));
    EXPECT_TRUE(agent.wait_for_log("the source of the pictures is gone — input is with"));
    player.say("request_idr");
    const size_t before = player.frames().size();
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    EXPECT_TRUE(all_of_it) << "not the last picture, from a keyframe";
    player.say("end_session");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
}

TEST_F(DesktopStream, ANewBitrateIsAppliedAndKept) {
    Agent agent(capture());
    Player player(agent, kLauncher);
    const auto mean_of_last = [&](size_t count) {
        const auto begin = player.frames().end() - static_cast<ptrdiff_t>(count);
        return std::accumulate(
                   begin, player.frames().end(), size_t{0},
                   [](size_t bytes, const Player::Frame& frame) { return bytes + frame.bytes; }) /
               count;
    };
    ASSERT_TRUE(receive_until(player, [&] { return player.frames().size() >= 90; }));
    const size_t before = mean_of_last(60);
    player.say("set_settings", R"(,"bitrate":200)");
    ASSERT_TRUE(receive_until(player, [&] {
        return agent.log().count("VideoEncoder: reconfigure bitrate → 200kbps") > 0;
    }));
    const size_t changed = player.frames().size();
    ASSERT_TRUE(receive_until(player, [&] { return player.frames().size() >= changed + 120; }));
    EXPECT_LE(player.keyframes_since(changed), 1U) << "the reopened encoder starts with one";
    constexpr size_t kBytesPerFrame = 200'000 / 8 / kFps;
    EXPECT_LT(mean_of_last(60), kBytesPerFrame * 11 / 10);
    EXPECT_GT(before, 2 * mean_of_last(60)) << "too little moved for the bitrate to matter";
    EXPECT_EQ(player.pictures(), player.frames().size());
}

}  // namespace
}  // namespace ox::test
