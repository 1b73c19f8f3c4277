// The desktop, from what was drawn to what a launcher decodes.

#include <gtest/gtest.h>

#include "base/clock.h"
#include "e2e/mosaic.h"
#include "e2e/player.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace ox::test {
namespace {

using namespace std::chrono_literals;

// No faster than a sanitized test can look at every pixel.
const Player::Setup kDesktop{.width = Mosaic::kWidth,
                             .height = Mosaic::kHeight,
                             .fps = 60 / kSlowdown,
                             .bitrate_kbps = 8000 / kSlowdown};

Agent::Setup capture_of(const Xvfb& server) {
    return {.environment = {"DISPLAY=" + server.display()}, .capture = "x11"};
}

class Desktop : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Depths, Desktop, testing::Values(24, 16));

TEST_P(Desktop, EveryDecodedPictureIsOneThatWasDrawnAndTheyComeInOrder) {
    const int depth = GetParam();
    const bool shared_memory = depth == 24;
    Xvfb::Setup setup{.screen = Mosaic::screen(depth)};
    if (!shared_memory) setup.arguments = {"-extension", "MIT-SHM"};
    const auto server = Xvfb::start(setup);
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    Mosaic mosaic(server->display(), depth);
    Agent agent(capture_of(*server));
    Player player(agent, kDesktop);

    size_t state = 0;
    std::vector<size_t> states;
    size_t unknown = 0;
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        const auto seen = mosaic.state_of(picture, state);
        if (!seen) {
            ++unknown;
            return;
        }
        if (*seen != state) states.push_back(*seen);
        state = *seen;
    };
    ASSERT_TRUE(player.receive_until([&] {
        mosaic.change();
        return player.pictures() >= 60;
    }));
    EXPECT_TRUE(player.receive_until([&] { return state == mosaic.changes(); }))
        << "the last change never arrived: " << state << " of " << mosaic.changes();
    EXPECT_EQ(unknown, 0U);
    EXPECT_GE(states.size(), 30U) << "hardly anything moved";
    const std::string how = shared_memory ? " via MIT-SHM (depth " : " via XGetImage (depth ";
    EXPECT_TRUE(agent.wait_for_log("X11Capture: 640x352" + how + std::to_string(depth) + ")"));
    agent.expect_prompt_stop();
}

TEST(DesktopChanges, TheStreamFollowsAScreenThatChangesItsSize) {
    const auto server = Xvfb::start({.screen = Mosaic::screen(24)});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    Mosaic mosaic(server->display(), 24);
    Agent agent(capture_of(*server));
    Player player(agent, kDesktop);
    // Whether the whole picture, edges included, has the brightness `luma`.
    int luma = -1;
    bool all_of_it = false;
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        ASSERT_EQ(picture.width, uint32_t{Mosaic::kWidth});
        ASSERT_EQ(picture.height, uint32_t{Mosaic::kHeight});
        all_of_it = true;
        for (uint32_t y = 0; y < picture.height; ++y) {
            for (uint32_t x = 0; x < picture.width; ++x) {
                const int value = picture.luma.bytes[y * picture.luma.stride + x];
                all_of_it = all_of_it && std::abs(value - luma) <= 8;
            }
        }
    };
    ASSERT_TRUE(player.receive_frames(10));
    struct Step {
        uint32_t width, height, grey;
    };
    for (const auto& [width, height, grey] :
         {Step{480, 200, 0x40}, Step{333, 351, 0x80}, Step{640, 352, 0xC0}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        mosaic.painter().resize_screen(width, height);
        mosaic.painter().fill(0, 0, width, height, grey << 16 | grey << 8 | grey);
        luma = static_cast<int>(16 + grey * 219 / 255);
        EXPECT_TRUE(player.receive_until([&] { return all_of_it; }));
        all_of_it = false;
    }
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_TRUE(agent.wait_for_log("VideoEncoder: swscale BGRA 480x200 → yuv420p 640x352"));
    agent.expect_prompt_stop();
}

TEST(DesktopChanges, AKilledServerLeavesTheLastPictureAndTheSessionAlive) {
    const auto server = Xvfb::start({.screen = Mosaic::screen(24)});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    Mosaic mosaic(server->display(), 24);
    Agent agent(capture_of(*server));
    Player player(agent, kDesktop);
    std::optional<size_t> state;
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        state = mosaic.state_of(picture, mosaic.changes());
    };
    ASSERT_TRUE(player.receive_until([&] { return state.has_value(); }));
    server->kill();
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_TRUE(state.has_value()) << "not the last picture";
    EXPECT_TRUE(agent.wait_for_log("X11Capture: the X server is gone"));
    player.say("request_idr");
    const size_t before = player.frames().size();
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    EXPECT_TRUE(state.has_value()) << "not the last picture, from a keyframe";
    player.say("end_session");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
    agent.expect_prompt_stop();
}

}  // namespace
}  // namespace ox::test
