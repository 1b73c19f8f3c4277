// A Wayland desktop, from what its compositor shows to what a launcher decodes. The session bus,
// the PipeWire daemon and its session manager are real; the portal and the compositor are the
// tests'.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <fstream>

#include "e2e/player.h"
#include "support/eventually.h"
#include "support/pipewire_source.h"
#include "support/screen_pictures.h"
#include "support/wayland_desktop.h"
#include "support/xvfb.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace ox::test {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 352;
// No faster than a sanitized test can look at every pixel.
const Player::Setup kLauncher{
    .width = kWidth, .height = kHeight, .fps = 60 / kSlowdown, .bitrate_kbps = 8000 / kSlowdown};

/// Mean Y, U and V (BT.601, limited range) of the 16 x 16 pixels from (x, y) on.
std::array<double, 3> cell_of(const CapturedFrame& picture, uint32_t x, uint32_t y) {
    double blue = 0;
    double green = 0;
    double red = 0;
    for (uint32_t i = 0; i < 256; ++i) {
        const size_t pixel = size_t{y + i / 16} * picture.width + x + i % 16;
        blue += picture.pixels()[pixel * 4] / 256.0 / 255.0;
        green += picture.pixels()[pixel * 4 + 1] / 256.0 / 255.0;
        red += picture.pixels()[pixel * 4 + 2] / 256.0 / 255.0;
    }
    const double luma = 0.299 * red + 0.587 * green + 0.114 * blue;
    return {16 + 219 * luma, 128 + 224 * (blue - luma) / 1.772, 128 + 224 * (red - luma) / 1.402};
}
std::array<double, 3> cell_of(const AVFrame& picture, uint32_t x, uint32_t y) {
    std::array<double, 3> means{};
    for (size_t plane = 0; plane < 3; ++plane) {
        const uint32_t side = plane == 0 ? 16 : 8;
        const uint32_t scale = 16 / side;
        for (uint32_t i = 0; i < side * side; ++i) {
            const size_t row = y / scale + i / side;
            means[plane] += picture.data[plane][row * static_cast<size_t>(picture.linesize[plane]) +
                                                x / scale + i % side];
        }
        means[plane] /= side * side;
    }
    return means;
}

/// Watches a stream of the moving test picture: every decoded picture has to be the one whose
/// number it carries, in all its cells, and the numbers never go back.
class Watcher {
  public:
    explicit Watcher(Player& player) : reference_(kWidth, kHeight) {
        reference_.init();
        player.on_picture = [this](const launcher::DecodedPicture& picture) { look_at(picture); };
    }

    void look_at(const launcher::DecodedPicture& picture) {
        const auto stamp = launcher::read_frame_stamp(picture.luma);
        if (!stamp || *stamp + 1 < next_ || *stamp > next_ + 10'000) {
            ++wrong_;
            return;
        }
        different_ += *stamp + 1 > next_ ? 1 : 0;
        for (; next_ <= *stamp; ++next_)
            reference_.capture_frame(expected_);
        for (uint32_t y = 0; y < kHeight; y += 16) {
            for (uint32_t x = 0; x < kWidth; x += 16) {
                const auto wanted = cell_of(expected_, x, y);
                const auto seen = cell_of(picture.image, x, y);
                for (size_t plane = 0; plane < 3; ++plane)
                    worst_ = std::max(worst_, std::abs(wanted[plane] - seen[plane]));
            }
        }
    }

    [[nodiscard]] int different() const { return different_; }
    void expect_faithful() const {
        EXPECT_EQ(wrong_, 0);
        EXPECT_LT(worst_, 12.0) << "in brightness or colour of some cell";
    }

  private:
    SyntheticCapture reference_;
    CapturedFrame expected_;
    uint32_t next_ = 0;  ///< number of the picture that the reference makes next
    int different_ = 0;
    int wrong_ = 0;
    double worst_ = 0;
};

class Wayland : public testing::Test {
  protected:
    void SetUp() override {
        desktop_ = WaylandDesktop::start();
        if (!desktop_) GTEST_SKIP() << "no session bus or PipeWire daemon on this machine";
    }
    [[nodiscard]] Agent::Setup setup(const std::string& capture) const {
        return {.environment = desktop_->environment(), .capture = capture};
    }
    void start_portal(uint32_t node, std::vector<std::string> behaviours = {}) {
        behaviours.push_back("node=" + std::to_string(node));
        ASSERT_TRUE(desktop_->start_portal(behaviours));
    }
    std::unique_ptr<WaylandDesktop> desktop_;
};

TEST_F(Wayland, TheDesktopIsStreamedAndAskedForOnce) {
    PipewireSource screen(desktop_->pipewire_socket(), moving_pictures(kWidth, kHeight),
                          {.padding = 36});
    start_portal(screen.node(), {"token=the choice"});
    Agent agent(setup("auto"));
    for (const char* token : {"types=1", "restore_token=the choice"}) {
        Player player(agent, kLauncher);
        Watcher watcher(player);
        EXPECT_TRUE(player.receive_until([&] { return watcher.different() >= 40; }, 3 * kPatience));
        watcher.expect_faithful();
        EXPECT_EQ(player.pictures(), player.frames().size());
        EXPECT_GE(desktop_->portal_report().count(token), 1U);
        player.say("end_session");
        ASSERT_TRUE(player.receive_until([&] { return player.control().closed_within(0ms); }));
    }
    EXPECT_TRUE(agent.wait_for_log("Session: capture backend = auto", 2));
    EXPECT_EQ(agent.log().count("PortalCapture: first run on this machine"), 1U);
    EXPECT_TRUE(eventually([&] { return desktop_->portal_report().count("Close Session") == 2; },
                           kPatience));
    agent.expect_prompt_stop();
}

TEST_F(Wayland, ACompositorThatDiesLeavesTheLastPictureAndTheSessionAlive) {
    std::atomic<bool> frozen{false};
    auto screen = std::make_unique<PipewireSource>(
        desktop_->pipewire_socket(),
        std::make_unique<FrozenPictures>(moving_pictures(kWidth, kHeight), frozen));
    start_portal(screen->node());
    Agent agent(setup("portal"));
    Player player(agent, kLauncher);
    Watcher watcher(player);
    ASSERT_TRUE(player.receive_until([&] { return watcher.different() >= 10; }, 3 * kPatience));
    frozen = true;
    // Also on a desktop that shows nothing new the stream goes on.
    ASSERT_TRUE(player.receive_frames(30));
    screen.reset();
    desktop_->kill_portal();
    ASSERT_TRUE(agent.wait_for_log("the last picture stays"));
    const int different = watcher.different();
    const size_t before = player.frames().size();
    player.say("request_idr");
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    ASSERT_TRUE(player.receive_frames(30));
    EXPECT_EQ(watcher.different(), different);
    watcher.expect_faithful();
    EXPECT_EQ(agent.log().count("the last picture stays"), 1U);
    player.say("end_session");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
    agent.expect_prompt_stop();
}

TEST_F(Wayland, WithoutItsApprovalTheNextBestPictureIsStreamed) {
    struct Case {
        const char* behaviour;  // null: no portal at all
        const char* capture;
        bool with_x11;
        std::vector<std::string> log;
    };
    const std::string to_x11 = "Session: portal capture failed — falling back to X11";
    const std::string to_synthetic =
        "Session: automatic capture unavailable — falling back to synthetic";
    const std::string synthetic = "Session: capture backend = synthetic";
    const std::vector<Case> cases = {
        {"refuse=Start:1",
         "portal",
         true,
         {"PortalCapture: portal refused Start (response=1)", to_x11,
          "Session: capture backend = x11"}},
        {"silent=Start",
         "portal",
         false,
         {"PortalCapture: no Response for Start within 300 ms", to_x11, synthetic}},
        {nullptr,
         "auto",
         false,
         {"PortalCapture: CreateSession returned", to_synthetic, synthetic}},
    };
    Xvfb::Setup screen;
    screen.screen = "320x240x24";
    const auto server = Xvfb::start(screen);
    for (const auto& [behaviour, capture, with_x11, log] : cases) {
        if (with_x11 && !server) continue;
        SCOPED_TRACE(log.front());
        behaviour != nullptr ? start_portal(0, {behaviour}) : desktop_->kill_portal();
        auto how = setup(capture);
        how.environment.emplace_back("OX_PORTAL_TIMEOUT_MS=300");
        if (with_x11) how.environment.push_back("DISPLAY=" + server->display());
        Agent agent(how);
        Player player(agent, kLauncher);
        EXPECT_TRUE(player.receive_frames(5));
        for (const auto& line : log)
            EXPECT_TRUE(agent.wait_for_log(line));
        if (std::string(capture) == "auto") {
            EXPECT_TRUE(agent.screen().wait_for("Can't capture the screen.", kPatience));
        }
        agent.expect_prompt_stop();
    }
}

TEST_F(Wayland, NobodyHasToWaitForAnApprovalDialog) {
    for (const bool by_signal : {true, false}) {
        start_portal(0, {"silent=Start"});
        Agent agent(setup("auto"));
        TcpClient launcher(agent.control_port(), kPatience);
        launcher.send(auth_line());
        ASSERT_TRUE(launcher.read_line(kPatience));
        ASSERT_TRUE(eventually([&] { return desktop_->portal_report().count("Start") == 1; }));
        if (by_signal) {
            agent.expect_prompt_stop();
            EXPECT_TRUE(agent.wait_for_log("Standalone session ended: shutdown"));
        } else {
            launcher.send("{\"type\":\"end_session\"}\n");
            EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
        }
        // The dialog goes, and nothing is put in its place.
        EXPECT_TRUE(
            eventually([&] { return desktop_->portal_report().count("Close Request") == 1; }));
        EXPECT_EQ(agent.log().count("falling back"), 0U);
        EXPECT_EQ(agent.log().count("[ERROR]"), 0U);
    }
}

TEST_F(Wayland, ARealCompositorIsStreamedThroughItsRealPortalWhereTheyRun) {
    if (!desktop_->start_sway("#336699", kWidth, kHeight)) {
        GTEST_SKIP() << "sway, xdg-desktop-portal or its wlr backend is not here or does not run";
    }
    std::ofstream(desktop_->config_file("orvex/portal_restore_token")) << "from another desktop";
    Agent agent(setup("portal"));
    Player player(agent, kLauncher);
    std::array<double, 3> seen{};
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        seen = cell_of(picture.image, kWidth / 2, kHeight / 2);
    };
    ASSERT_TRUE(player.receive_frames(5));
    EXPECT_TRUE(agent.wait_for_log(
        "PortalCapture: saved restore token not accepted (org.freedesktop.portal.Error."
        "InvalidArgument: "));
    if (agent.log().count("PortalCapture: portal refused Start (response=2)") == 1) {
        agent.expect_prompt_stop();
        GTEST_SKIP() << "the portal took every call, but its backend cannot capture without a GPU";
    }
    CapturedFrame wanted{.data = {}, .lent = {}, .width = 16, .height = 16};
    for (int i = 0; i < 256; ++i)
        wanted.data.insert(wanted.data.end(), {0x99, 0x66, 0x33, 0xFF});
    for (size_t plane = 0; plane < 3; ++plane)
        EXPECT_NEAR(seen[plane], cell_of(wanted, 0, 0)[plane], 6.0);
    EXPECT_TRUE(agent.wait_for_log("Session: capture backend = portal"));
    agent.expect_prompt_stop();
}

}  // namespace
}  // namespace ox::test
