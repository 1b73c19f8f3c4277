#include "video/x11_capture.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

namespace ox {
namespace {

using test::LogCapture;
using test::XPainter;
using test::Xvfb;

struct Rect {
    uint32_t x, y, width, height;
    uint32_t rgb;     // as the capture must deliver it
    uint32_t rgb565;  // the same colour as a server of depth 16 has it
};
using Scene = std::vector<Rect>;

/// Touches every edge of a 333 x 77 screen.
const Scene kScene{{0, 0, 333, 77, 0x838183, 0x8410},
                   {0, 0, 1, 1, 0xFF0000, 0xF800},
                   {332, 0, 1, 77, 0x00FF00, 0x07E0},
                   {0, 76, 332, 1, 0x0000FF, 0x001F},
                   {40, 20, 100, 30, 0x080408, 0x0821}};

void paint(XPainter& painter, const Scene& scene, int depth) {
    for (const Rect& rect : scene) {
        painter.fill(static_cast<int>(rect.x), static_cast<int>(rect.y), rect.width, rect.height,
                     depth == 16 ? rect.rgb565 : rect.rgb);
    }
}

/// How many pixels differ from the scene; alpha counts where the frame has pixels of its own.
int count_wrong(const CapturedFrame& frame, const Scene& scene) {
    int wrong = 0;
    for (uint32_t at = 0; at < frame.width * frame.height; ++at) {
        uint32_t expected = 0;
        for (const Rect& rect : scene) {
            const bool inside =
                at % frame.width - rect.x < rect.width && at / frame.width - rect.y < rect.height;
            if (inside) expected = rect.rgb | 0xFF000000;
        }
        uint32_t pixel = 0;
        std::memcpy(&pixel, frame.pixels() + size_t{at} * 4, 4);
        wrong += (frame.lent ? pixel | 0xFF000000 : pixel) != expected ? 1 : 0;
    }
    return wrong;
}

/// One kind of server.
struct Server {
    const char* name;
    int depth;
    Xvfb::Setup setup;
    int failed_attaches = 0;
};

class X11CaptureTest : public testing::TestWithParam<Server> {};

INSTANTIATE_TEST_SUITE_P(
    Servers, X11CaptureTest,
    testing::Values(
        Server{"Shm24", 24, {.screen = "333x77x24"}}, Server{"Shm16", 16, {.screen = "333x77x16"}},
        Server{"NoShm24", 24, {.screen = "333x77x24", .arguments = {"-extension", "MIT-SHM"}}},
        Server{
            "OtherIpcNamespace", 24, {.screen = "333x77x24", .wrapper = {"unshare", "--ipc"}}, 1}),
    [](const auto& suite) { return std::string(suite.param.name); });

constexpr const char* kBlack =
    "X11Capture: 120 all-black frames — the X11 root has no pixels. On a Wayland session this is "
    "expected: X11 capture cannot see the desktop. Use an X11 session or a PipeWire capture "
    "backend; --capture synthetic is test-only.";

TEST_P(X11CaptureTest, DeliversThePixelsThatWereDrawnAndWarnsOfABlackScreen) {
    const auto& [name, depth, setup, failed_attaches] = GetParam();
    const bool shared_memory = std::string(name).starts_with("Shm");
    const auto server = Xvfb::start(setup);
    if (!server) GTEST_SKIP() << "Xvfb cannot be started in this way on this machine";
    const LogCapture log;
    XPainter painter(server->display());
    paint(painter, kScene, depth);
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init()) << log.text();
    EXPECT_EQ(capture.width(), 333U);
    EXPECT_EQ(capture.height(), 77U);
    EXPECT_EQ(log.count("INFO", std::string("X11Capture: 333x77 via ") +
                                    (shared_memory ? "MIT-SHM" : "XGetImage") + " (depth " +
                                    std::to_string(depth) + ")"),
              1)
        << log.text();
    EXPECT_EQ(log.count("WARN", "X11Capture: MIT-SHM unavailable — falling back to XGetImage"),
              shared_memory ? 0 : 1);
    EXPECT_EQ(log.count("ERROR", "X11Capture: XShmAttach failed"), failed_attaches);

    CapturedFrame frame;
    ASSERT_EQ(capture.capture_frame(frame), 0);
    EXPECT_EQ(frame.lent != nullptr, shared_memory && depth == 24);
    EXPECT_EQ(count_wrong(frame, kScene), 0);
    auto changed = kScene;
    std::swap(changed[3].rgb, changed[4].rgb);
    std::swap(changed[3].rgb565, changed[4].rgb565);
    paint(painter, changed, depth);
    ASSERT_EQ(capture.capture_frame(frame), 0);
    EXPECT_EQ(count_wrong(frame, changed), 0);

    painter.fill(0, 0, 333, 77, 0);
    for (int i = 0; i < 120; ++i) {
        EXPECT_EQ(log.count("WARN", kBlack), 0);
        ASSERT_EQ(capture.capture_frame(frame), 0);
    }
    EXPECT_EQ(log.count("WARN", kBlack), 1);
    paint(painter, changed, depth);
    ASSERT_EQ(capture.capture_frame(frame), 0);
    capture.shutdown();
    capture.shutdown();
    EXPECT_EQ(capture.capture_frame(frame), 1);
    EXPECT_EQ(count_wrong(frame, changed), 0);  // lent pixels outlive the capture
}

TEST(X11Capture, WaitsForNoServerThatHangsOnceNobodyWantsThePicture) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    const LogCapture log;
    std::atomic<bool> cancelled{false};
    X11Capture capture(server->display(), {}, [&] { return cancelled.load(); });
    X11Capture wanted(server->display());
    ASSERT_TRUE(capture.init() && wanted.init()) << log.text();
    server->process().signal(SIGSTOP);
    wanted.shutdown();
    cancelled = true;
    CapturedFrame frame;
    EXPECT_EQ(capture.capture_frame(frame), 1);
    EXPECT_EQ(log.count("ERROR", "X11Capture: the X server is gone"), 1);
    EXPECT_FALSE(X11Capture(server->display()).init());
    EXPECT_EQ(log.count("WARN", "X11Capture: the X server of " + server->display() +
                                    " does not answer — restart the desktop"),
              1);
}

}  // namespace
}  // namespace ox
