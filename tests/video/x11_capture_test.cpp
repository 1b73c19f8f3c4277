#include "video/x11_capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

namespace ox {
namespace {

using std::chrono::milliseconds;
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
    // The server tells of a change when it has been made.
    const auto shows = [&](const Scene& scene) {
        return test::eventually(
            [&] { return capture.capture_frame(frame) == 0 && count_wrong(frame, scene) == 0; });
    };
    paint(painter, changed, depth);
    EXPECT_TRUE(shows(changed));

    painter.fill(0, 0, 333, 77, 0);
    ASSERT_TRUE(shows({{0, 0, 333, 77, 0, 0}}));
    for (int i = 1; i < 120; ++i) {
        EXPECT_EQ(log.count("WARN", kBlack), 0);
        ASSERT_EQ(capture.capture_frame(frame), 0);
    }
    EXPECT_EQ(log.count("WARN", kBlack), 1);
    paint(painter, changed, depth);
    EXPECT_TRUE(shows(changed));
    capture.shutdown();
    capture.shutdown();
    EXPECT_EQ(capture.capture_frame(frame), 1);
    EXPECT_EQ(count_wrong(frame, changed), 0);  // lent pixels outlive the capture
}

/// A frame of one colour, given as its BGRA word, with the pointer where the test put it.
struct PointedFrame {
    uint32_t colour;
    std::vector<uint32_t> argb;
    int pointer_width, left, top;

    [[nodiscard]] uint32_t at(int x, int y) const {
        const int column = x - left;
        const int row = y - top;
        const int index = row * pointer_width + column;
        if (column < 0 || column >= pointer_width || row < 0 ||
            index >= static_cast<int>(argb.size())) {
            return colour;
        }
        const uint32_t over = argb[static_cast<size_t>(index)];
        uint32_t pixel = 0xFF000000;
        for (int shift = 0; shift < 24; shift += 8) {
            const double under = colour >> shift & 0xFF;
            pixel |= static_cast<uint32_t>((over >> shift & 0xFF) +
                                           std::lround(under * (255 - (over >> 24)) / 255.0))
                     << shift;
        }
        return pixel;
    }
    [[nodiscard]] int count_wrong_in(const CapturedFrame& frame) const {
        int wrong = 0;
        for (uint32_t at_pixel = 0; at_pixel < frame.width * frame.height; ++at_pixel) {
            uint32_t pixel = 0;
            std::memcpy(&pixel, frame.pixels() + size_t{at_pixel} * 4, 4);
            const uint32_t expected = at(static_cast<int>(at_pixel % frame.width),
                                         static_cast<int>(at_pixel / frame.width));
            wrong += (pixel | 0xFF000000) != expected ? 1 : 0;
        }
        return wrong;
    }
};

TEST_P(X11CaptureTest, ShowsTheMousePointerWhereverItIsAndNothingOfItWhereItWas) {
    const auto server = Xvfb::start(GetParam().setup);
    if (!server) GTEST_SKIP() << "Xvfb cannot be started in this way on this machine";
    const bool deep = GetParam().depth == 24;
    XPainter painter(server->display());
    painter.fill(0, 0, 333, 77, deep ? 0x838183 : 0x8410);
    // 3 x 3: opaque, half, nothing, ...
    const std::vector<uint32_t> argb{0xFFFF8001, 0x80402010, 0,          0xFF000000, 0x01010101,
                                     0x7F7F007F, 0,          0xFFFFFFFF, 0xC0000000};
    painter.set_pointer(argb, 3, 2, 1);
    PointedFrame expected{
        .colour = 0xFF838183, .argb = argb, .pointer_width = 3, .left = 0, .top = 0};
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    CapturedFrame frame;
    const auto shown = [&] {
        return test::eventually([&] {
            return capture.capture_frame(frame) == 0 && expected.count_wrong_in(frame) == 0;
        });
    };
    const auto look = [&](int x, int y) {
        SCOPED_TRACE(std::to_string(x) + ", " + std::to_string(y));
        painter.move_pointer(x, y);
        expected.left = x - 2;
        expected.top = y - 1;
        const uint64_t before = frame.content;
        ASSERT_EQ(capture.capture_frame(frame), 0);
        EXPECT_EQ(expected.count_wrong_in(frame), 0);
        EXPECT_NE(frame.content, before);
    };
    painter.move_pointer(100, 30);
    expected.left = 98;
    expected.top = 29;
    EXPECT_TRUE(shown());
    for (const auto& [x, y] : {std::pair{40, 40}, {41, 40}, {0, 0}, {332, 0}, {0, 76}, {332, 76}})
        look(x, y);
    painter.fill(0, 0, 333, 77, 0xFFFFFF);  // below the pointer, too
    expected.colour = 0xFFFFFFFF;
    EXPECT_TRUE(shown());
    look(331, 75);
    painter.resize_screen(200, 50);
    painter.fill(0, 0, 200, 50, 0);
    painter.move_pointer(20, 20);
    expected.colour = 0xFF000000;
    expected.left = 18;
    expected.top = 19;
    EXPECT_TRUE(shown());
    look(199, 49);
    EXPECT_EQ(frame.width * frame.height, 200U * 50);
    painter.set_pointer({0xFF112233}, 1, 0, 0);
    expected.argb = {0xFF112233};
    expected.pointer_width = 1;
    expected.left = 199;
    expected.top = 49;
    EXPECT_TRUE(shown());
    painter.set_pointer({0}, 1, 0, 0);  // as a game hides it
    expected.argb.clear();
    EXPECT_TRUE(shown());
}

TEST(X11Capture, FetchesEveryPictureOfAServerThatTellsOfNoChanges) {
    const auto server = Xvfb::start({.arguments = {"-extension", "DAMAGE"}});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    XPainter painter(server->display());
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    EXPECT_EQ(capture.changes(), nullptr);
    CapturedFrame frame;
    for (const uint32_t colour : {0xFFU, 0xFF00U}) {
        painter.fill(0, 0, 640, 480, colour);
        ASSERT_EQ(capture.capture_frame(frame), 0);
        EXPECT_EQ(count_wrong(frame, {{0, 0, 640, 480, colour, 0}}), 0);
    }
}

TEST(X11Capture, TellsOfChangesAndKeepsAPictureThatDidNotChange) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    XPainter painter(server->display());
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    ASSERT_NE(capture.changes(), nullptr);
    CapturedFrame frame;
    const auto capture_for = [&](milliseconds time) {
        const auto until = SteadyClock::now() + time;
        while (SteadyClock::now() < until)
            ASSERT_EQ(capture.capture_frame(frame), 0);
    };
    capture_for(milliseconds(300));  // what came up with the server has been announced
    const uint64_t kept = frame.content;
    const uint64_t taken = frame.timestamp;
    const uint64_t announced = capture.changes()->count();
    capture_for(milliseconds(500));  // checks in between
    EXPECT_EQ(frame.content, kept);
    EXPECT_GT(frame.timestamp, taken);
    EXPECT_EQ(capture.changes()->count(), announced);
    for (uint32_t colour = 1; colour < 6; ++colour) {
        const auto before = SteadyClock::now();
        const uint64_t earlier = capture.changes()->count();
        painter.fill(0, 0, 640, 480, colour);
        EXPECT_TRUE(test::eventually([&] { return capture.changes()->count() > earlier; }));
        SteadyClock::time_point told{};
        capture.changes()->take([&](SteadyClock::time_point at) { told = at; });
        EXPECT_GE(told + milliseconds(1), before);
        EXPECT_LE(told, SteadyClock::now());
        ASSERT_EQ(capture.capture_frame(frame), 0);
        EXPECT_EQ(count_wrong(frame, {{0, 0, 640, 480, colour, 0}}), 0);
    }
}

TEST(X11Capture, DoesNotTrustAServerThatConcealsChanges) {
    const test::TempDir memory;  // of the screen, as a file
    const auto server =
        Xvfb::start({.screen = "64x64x24", .arguments = {"-fbdir", memory.path().string()}});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    const XPainter painter(server->display());
    const LogCapture log;
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    const UniqueFd screen(::open((memory.path() / "Xvfb_screen0").c_str(), O_RDWR));
    const off_t pixels = ::lseek(screen.get(), 0, SEEK_END) - off_t{64} * 64 * 4;
    CapturedFrame frame;
    const auto shows = [&](uint32_t colour) {
        return capture.capture_frame(frame) == 0 &&
               count_wrong(frame, {{0, 0, 64, 64, colour, 0}}) == 0;
    };
    const auto conceal = [&](uint32_t colour) {
        const std::vector<uint32_t> screenful(size_t{64} * 64, colour);
        ASSERT_EQ(::pwrite(screen.get(), screenful.data(), screenful.size() * 4, pixels),
                  static_cast<ssize_t>(screenful.size() * 4));
    };
    constexpr const char* kLine =
        "X11Capture: the screen changes without the X server telling of it";
    ASSERT_TRUE(test::eventually([&] { return shows(0); }));
    uint32_t picture = 0;
    EXPECT_TRUE(test::eventually([&] {
        conceal(++picture);
        return capture.capture_frame(frame) == 0 && log.count("DEBUG", kLine) > 0;
    }));
    EXPECT_EQ(capture.changes(), nullptr);
    for (uint32_t colour = 1; colour < 5; ++colour) {
        conceal(colour);
        EXPECT_TRUE(shows(colour));
    }
    EXPECT_EQ(log.count("DEBUG", kLine), 1);
}

TEST(PictureFreshness, AnAnnouncementThatComesLateIsNoConcealment) {
    using Need = PictureFreshness::Need;
    PictureFreshness freshness;
    const SteadyClock::time_point start{std::chrono::seconds(100)};
    const auto next = [&](uint64_t announced, int ms) {
        const Need need = freshness.next(announced, start + milliseconds(ms));
        if (need != Need::Nothing) freshness.fetched(announced, start + milliseconds(ms));
        return need;
    };
    EXPECT_EQ(next(0, 0), Need::Fetch);
    EXPECT_EQ(next(0, 99), Need::Nothing);
    EXPECT_EQ(next(0, 100), Need::Check);
    freshness.found_change(start + milliseconds(100));
    EXPECT_EQ(next(0, 199), Need::Fetch);  // under suspicion
    EXPECT_EQ(next(1, 200), Need::Fetch);
    EXPECT_EQ(next(1, 201), Need::Nothing);
    EXPECT_TRUE(freshness.trusted());
    EXPECT_EQ(next(1, 300), Need::Check);
    freshness.found_change(start + milliseconds(300));
    EXPECT_EQ(next(1, 400), Need::Fetch);
    EXPECT_FALSE(freshness.trusted());
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
