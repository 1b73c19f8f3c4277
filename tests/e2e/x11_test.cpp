// The desktop, from what was drawn to what a launcher decodes.

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "e2e/watcher.h"
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

/// A desktop on which so much can move that frames take several packets.
class DesktopStream : public testing::Test {
  protected:
    void SetUp() override {
        server_ = Xvfb::start({});
        if (!server_) GTEST_SKIP() << "no Xvfb on this machine";
        number_.emplace(server_->display());
    }
    /// So much detail that keyframes take several parity groups, but not so much that the encoder
    /// has to give up the number above it.
    void paint_detail() {
        for (int y = kHeight - 64; y < kHeight; y += 4) {
            for (int x = 0; x < kWidth; x += 4)
                paint(x, y, 4);
        }
    }
    void paint(int x, int y, uint32_t side) {
        number_->painter().fill(x, y, side, side, static_cast<uint32_t>(random_()));
    }
    [[nodiscard]] Agent::Setup capture(std::vector<std::string> environment = {}) const {
        environment.push_back("DISPLAY=" + server_->display());
        return {.environment = std::move(environment), .capture = "x11"};
    }
    bool receive_until(Player& player, const std::function<bool()>& done) {
        // Chance has a part in what is waited for.
        return player.receive_until(
            [&] {
                number_->change();
                for (int i = 0; i < 10; ++i)
                    paint(static_cast<int>(random_() % 40) * 16,
                          static_cast<int>(random_() % 20 + 1) * 16, 16);
                return done();
            },
            3 * kPatience);
    }

    std::unique_ptr<Xvfb> server_;
    std::optional<DrawnNumber> number_;
    std::minstd_rand random_{1};
};

TEST_F(DesktopStream, TheStreamFollowsAScreenThatChangesItsSize) {
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
        number_->painter().resize_screen(width, height);
        number_->painter().fill(0, 0, width, height, rgb);
        colour = yuv;
        EXPECT_TRUE(player.receive_until([&] { return all_of_it; }));
        all_of_it = false;
    }
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_TRUE(agent.wait_for_log("VideoEncoder: swscale BGRA 480x200 → yuv420p 640x480"));
}

TEST_F(DesktopStream, AKilledServerLeavesTheLastPictureAndTheSessionAlive) {
    Agent agent(capture());
    Player player(agent, kLauncher);
    Watcher watcher(player, DrawnNumber::decode);
    for (int i = 0; i < 5; ++i)
        number_->change();
    ASSERT_TRUE(player.receive_until([&] { return watcher.last() == 5; }));
    server_->kill();
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_TRUE(agent.wait_for_log("X11Capture: the X server is gone"));
    EXPECT_TRUE(agent.wait_for_log("the source of the pictures is gone — input is with"));
    player.say("request_idr");
    const size_t before = player.frames().size();
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    EXPECT_EQ(watcher.last(), 5U) << "not the last picture, from a keyframe";
    player.say("end_session");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
}

TEST_F(DesktopStream, SingleLossesAreRecoveredAndOthersAnsweredByAKeyframe) {
    paint_detail();
    Agent agent(capture({"OX_DEBUG_DROP_PCT=5"}));
    Player player(agent, kLauncher);
    Watcher watcher(player, DrawnNumber::decode);
    ASSERT_TRUE(receive_until(player,
                              [&] {
                                  const auto& stats = player.stats();
                                  return stats.assembly.packets_recovered >= 1 &&
                                         stats.keyframe_requests > 0 &&
                                         player.keyframes_since(0) >= 3;
                              }))
        << player.stats().assembly.packets_recovered << " packets recovered";
    const auto& stats = player.stats();
    EXPECT_GT(stats.assembly.frames_lost, 0U);
    EXPECT_EQ(stats.undecryptable, 0U);
    EXPECT_EQ(player.pictures(), player.frames().size()) << "something broken was handed out";
    // The screen comes to rest: in spite of all losses the launcher ends up with its picture.
    EXPECT_TRUE(player.receive_until([&] { return watcher.last() == number_->number(); }));
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
