// Streams of real size: losses on the way, and the bitrate that a launcher sets.

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "e2e/watcher.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr int kFps = 60 / kSlowdown;
const Player::Setup kBusyDesktop{
    .width = kWidth, .height = kHeight, .fps = kFps, .bitrate_kbps = 4000};

/// A desktop on which so much moves that frames take several packets, and with so much detail that
/// keyframes take several parity groups.
class BusyStream : public testing::Test {
  protected:
    void SetUp() override {
        server_ = Xvfb::start({});
        if (!server_) GTEST_SKIP() << "no Xvfb on this machine";
        number_.emplace(server_->display());
        for (int y = kHeight - 128; y < kHeight; y += 4) {
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

TEST_F(BusyStream, SingleLossesAreRecoveredAndOthersAnsweredByAKeyframe) {
    Agent agent(capture({"OX_DEBUG_DROP_PCT=5"}));
    Player player(agent, kBusyDesktop);
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

TEST_F(BusyStream, ANewBitrateIsAppliedAndKept) {
    Agent agent(capture());
    Player player(agent, kBusyDesktop);
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
