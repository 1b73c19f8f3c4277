#include "video/x11_capture.h"

#include <gtest/gtest.h>

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
    int x, y;
    uint32_t width, height;
    uint32_t pixel;  // as the server has it
    uint32_t bgr;    // as the capture must deliver it: 0xRRGGBB
};

/// A scene that touches every edge of a 333 x 77 screen.
std::vector<Rect> scene(int depth) {
    if (depth == 16) {
        return {{0, 0, 333, 77, 0x8410, 0x838183},
                {0, 0, 1, 1, 0xF800, 0xFF0000},
                {332, 0, 1, 77, 0x07E0, 0x00FF00},
                {0, 76, 332, 1, 0x001F, 0x0000FF},
                {40, 20, 100, 30, 0x0821, 0x080408}};
    }
    return {{0, 0, 333, 77, 0x102030, 0x102030},
            {0, 0, 1, 1, 0xFF0000, 0xFF0000},
            {332, 0, 1, 77, 0x00FF01, 0x00FF01},
            {0, 76, 332, 1, 0x0200FF, 0x0200FF},
            {40, 20, 100, 30, 0x89ABCD, 0x89ABCD}};
}

void paint(XPainter& painter, const std::vector<Rect>& rects) {
    for (const Rect& rect : rects)
        painter.fill(rect.x, rect.y, rect.width, rect.height, rect.pixel);
}

/// How many pixels differ from the scene; alpha counts where the frame has pixels of its own.
int count_wrong(const CapturedFrame& frame, const std::vector<Rect>& rects) {
    int wrong = 0;
    for (uint32_t y = 0; y < frame.height; ++y) {
        for (uint32_t x = 0; x < frame.width; ++x) {
            uint32_t expected = 0;
            for (const Rect& rect : rects) {
                const uint32_t left = static_cast<uint32_t>(rect.x);
                const uint32_t top = static_cast<uint32_t>(rect.y);
                if (x - left < rect.width && y - top < rect.height) expected = rect.bgr;
            }
            uint32_t pixel = 0;
            std::memcpy(&pixel, frame.pixels() + (size_t{y} * frame.width + x) * 4, 4);
            const bool opaque = frame.lent || pixel >> 24 == 255;
            if ((pixel & 0xFFFFFF) != expected || !opaque) ++wrong;
        }
    }
    return wrong;
}

/// One kind of server.
struct Server {
    const char* name;
    int depth;
    bool shm_extension;
    bool same_ipc_namespace;

    [[nodiscard]] bool shares_memory() const { return shm_extension && same_ipc_namespace; }
    [[nodiscard]] std::unique_ptr<Xvfb> start() const {
        Xvfb::Setup setup;
        setup.screen = "333x77x" + std::to_string(depth);
        if (!shm_extension) setup.arguments = {"-extension", "MIT-SHM"};
        setup.other_ipc_namespace = !same_ipc_namespace;
        return Xvfb::start(setup);
    }
};

class X11CaptureTest : public testing::TestWithParam<Server> {};

INSTANTIATE_TEST_SUITE_P(Servers, X11CaptureTest,
                         testing::Values(Server{"Shm24", 24, true, true},
                                         Server{"Shm16", 16, true, true},
                                         Server{"NoShm24", 24, false, true},
                                         Server{"NoShm16", 16, false, true},
                                         Server{"OtherIpcNamespace", 24, true, false}),
                         [](const auto& suite) { return std::string(suite.param.name); });

TEST_P(X11CaptureTest, DeliversThePixelsThatWereDrawn) {
    const auto server = GetParam().start();
    if (!server) GTEST_SKIP() << "Xvfb cannot be started in this way on this machine";
    const LogCapture log;
    XPainter painter(server->display());
    paint(painter, scene(GetParam().depth));
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init()) << log.text();
    EXPECT_EQ(capture.width(), 333U);
    EXPECT_EQ(capture.height(), 77U);
    EXPECT_EQ(log.count("INFO", std::string("X11Capture: 333x77 via ") +
                                    (GetParam().shares_memory() ? "MIT-SHM" : "XGetImage") +
                                    " (depth " + std::to_string(GetParam().depth) + ")"),
              1)
        << log.text();
    EXPECT_EQ(log.count("WARN", "X11Capture: MIT-SHM unavailable — falling back to XGetImage"),
              GetParam().shares_memory() ? 0 : 1);
    EXPECT_EQ(log.count("ERROR", "X11Capture: XShmAttach failed"),
              GetParam().same_ipc_namespace ? 0 : 1);

    CapturedFrame frame;
    ASSERT_EQ(capture.capture_frame(frame), 0);
    EXPECT_EQ(frame.lent != nullptr, GetParam().shares_memory() && GetParam().depth == 24);
    EXPECT_EQ(count_wrong(frame, scene(GetParam().depth)), 0);
    auto changed = scene(GetParam().depth);
    std::swap(changed[3].pixel, changed[4].pixel);
    std::swap(changed[3].bgr, changed[4].bgr);
    paint(painter, changed);
    ASSERT_EQ(capture.capture_frame(frame), 0);
    EXPECT_EQ(count_wrong(frame, changed), 0);

    capture.shutdown();
    capture.shutdown();
    EXPECT_EQ(capture.capture_frame(frame), 1);
    EXPECT_EQ(count_wrong(frame, changed), 0);  // lent pixels outlive the capture
}

TEST(X11Capture, WarnsOfABlackScreen) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "Xvfb cannot be started on this machine";
    const LogCapture log;
    XPainter painter(server->display());
    painter.fill(0, 0, 640, 480, 0);
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    const auto warnings = [&] {
        return log.count("WARN",
                         "X11Capture: 120 all-black frames — the X11 root has no pixels. On a "
                         "Wayland session this is expected: X11 capture cannot see the desktop. "
                         "Use an X11 session or a PipeWire capture backend; --capture synthetic "
                         "is test-only.");
    };
    CapturedFrame frame;
    for (int i = 0; i < 119; ++i)
        ASSERT_EQ(capture.capture_frame(frame), 0);
    EXPECT_EQ(warnings(), 0);
    ASSERT_EQ(capture.capture_frame(frame), 0);
    EXPECT_EQ(warnings(), 1);
}

TEST(X11Capture, SaysThatThereIsNoDisplay) {
    const LogCapture log;
    X11Capture capture(":64999");
    EXPECT_FALSE(capture.init());
    EXPECT_EQ(log.count("ERROR",
                        "X11Capture: cannot open display ':64999' — use --capture synthetic for "
                        "headless"),
              1);
}

}  // namespace
}  // namespace ox
