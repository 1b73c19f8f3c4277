#include "video/x11_capture.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/xvfb.h"

namespace ox {
namespace {

using std::chrono::milliseconds;
using test::LogCapture;
using test::XPainter;
using test::Xvfb;

constexpr uint32_t kOpaque = 0xFF000000;

/// A server's screen and its expected pixels. Colours are 0xRRGGBB; at a depth of 16 only those of
/// RGB565 come back.
struct Screen {
    Screen(const Xvfb& server, uint32_t columns, uint32_t rows, int bits = 24)
        : painter(server.display()), depth(bits), width(columns), root(size_t{columns} * rows) {}

    void fill(uint32_t x, uint32_t y, uint32_t columns, uint32_t rows, uint32_t rgb) {
        const uint32_t rgb565 = (rgb >> 8 & 0xF800) | (rgb >> 5 & 0x07E0) | (rgb >> 3 & 0x1F);
        painter.fill(static_cast<int>(x), static_cast<int>(y), columns, rows,
                     depth == 16 ? rgb565 : rgb);
        for (uint32_t i = 0; i < columns * rows; ++i)
            root[(y + i / columns) * width + x + i % columns] = rgb;
    }
    void fill(uint32_t rgb) { fill(0, 0, width, static_cast<uint32_t>(root.size()) / width, rgb); }
    void resize(uint32_t columns, uint32_t rows) {
        painter.resize_screen(columns, rows);
        width = columns;
        root.resize(size_t{columns} * rows);
    }
    /// 3 x 3 pixels, colours multiplied by alpha; the hot spot is (2, 1).
    void set_pointer(const std::vector<uint32_t>& argb) {
        painter.set_pointer(argb, 3, 2, 1);
        pointer = argb;
    }
    void move_pointer(int x, int y) {
        painter.move_pointer(x, y);
        left = x - 2;
        top = y - 1;
    }

    /// Whether the next frame is right.
    [[nodiscard]] bool shown_by(ICapture& capture, CapturedFrame& frame) const {
        return capture.capture_frame(frame) == 0 && wrong_in(frame) == 0;
    }
    /// Number of wrong pixels in a frame; alpha counts where the frame owns its pixels.
    [[nodiscard]] size_t wrong_in(const CapturedFrame& frame) const {
        if (size_t{frame.width} * frame.height != root.size()) return root.size();
        size_t wrong = 0;
        for (size_t at = 0; at < root.size(); ++at) {
            uint32_t pixel = 0;
            std::memcpy(&pixel, frame.pixels() + at * 4, 4);
            wrong += (frame.lent ? pixel | kOpaque : pixel) != with_pointer(at) ? 1 : 0;
        }
        return wrong;
    }
    [[nodiscard]] uint32_t with_pointer(size_t at) const {
        const int column = static_cast<int>(at % width) - left;
        const int row = static_cast<int>(at / width) - top;
        const bool covered = column >= 0 && column < 3 && row >= 0 && row < 3;
        const uint32_t over = covered ? pointer.at(static_cast<size_t>(row * 3 + column)) : 0;
        uint32_t pixel = kOpaque;
        for (int shift = 0; shift < 24; shift += 8) {
            const uint32_t under = (root[at] >> shift & 0xFF) * (255 - (over >> 24));
            pixel |= ((over >> shift & 0xFF) + (under + 127) / 255) << shift;
        }
        return pixel;
    }

    XPainter painter;
    int depth;
    uint32_t width;
    std::vector<uint32_t> root;
    std::vector<uint32_t> pointer{std::vector<uint32_t>(9)};
    int left = 0, top = 0;
};

using Server = std::tuple<const char*, int, Xvfb::Setup>;  ///< its name, its depth

class X11CaptureTest : public testing::TestWithParam<Server> {};

INSTANTIATE_TEST_SUITE_P(
    Servers, X11CaptureTest,
    testing::Values(
        Server{"Shm24", 24, {.screen = "333x77x24"}}, Server{"Shm16", 16, {.screen = "333x77x16"}},
        Server{"ShmNoDamage", 24, {.screen = "333x77x24", .arguments = {"-extension", "DAMAGE"}}},
        Server{"NoShm24", 24, {.screen = "333x77x24", .arguments = {"-extension", "MIT-SHM"}}},
        Server{"OtherIpcNamespace", 24, {.screen = "333x77x24", .wrapper = {"unshare", "--ipc"}}}),
    [](const auto& suite) { return std::string(std::get<0>(suite.param)); });

constexpr const char* kBlack = "[WARN ] X11Capture: 120 all-black frames — the X11 root has no";

TEST_P(X11CaptureTest, DeliversThePixelsThatWereDrawnAndWarnsOfABlackScreen) {
    const auto& [name, depth, setup] = GetParam();
    const bool shared_memory = std::string(name).starts_with("Shm");
    const auto server = Xvfb::start(setup);
    if (!server) GTEST_SKIP() << "Xvfb cannot be started in this way on this machine";
    const LogCapture log;
    Screen screen(*server, 333, 77, depth);
    screen.fill(0x838183);
    screen.fill(0, 0, 1, 1, 0xFF0000);  // every edge
    screen.fill(332, 0, 1, 77, 0x00FF00);
    screen.fill(0, 76, 332, 1, 0x0000FF);
    screen.fill(40, 20, 100, 30, 0x080408);
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init()) << log.text();
    EXPECT_EQ(std::pair(capture.width(), capture.height()), std::pair(333U, 77U));
    const std::string how = shared_memory ? "MIT-SHM" : "XGetImage";
    const std::string depth_text = " (depth " + std::to_string(depth) + ")";
    EXPECT_EQ(log.count("INFO", "X11Capture: 333x77 via " + how + depth_text), 1) << log.text();
    EXPECT_EQ(log.times("MIT-SHM unavailable — falling back to XGetImage"), shared_memory ? 0 : 1);
    EXPECT_EQ(log.count("ERROR", "X11Capture: XShmAttach failed"), setup.wrapper.empty() ? 0 : 1);

    CapturedFrame frame;
    const auto shows = [&] { return screen.shown_by(capture, frame); };
    EXPECT_TRUE(shows());
    EXPECT_EQ(frame.lent != nullptr, shared_memory && depth == 24);
    const bool announces = capture.changes() != nullptr;
    EXPECT_EQ(announces, setup.arguments != std::vector<std::string>({"-extension", "DAMAGE"}));
    const auto comes = [&] { return announces ? test::eventually(shows) : shows(); };
    screen.fill(40, 20, 100, 30, 0x0000FF);
    EXPECT_TRUE(comes());

    screen.fill(0);
    ASSERT_TRUE(comes());
    for (int i = 1; i < 120; ++i) {
        EXPECT_EQ(log.times(kBlack), 0);
        ASSERT_EQ(capture.capture_frame(frame), 0);
    }
    EXPECT_EQ(log.times(kBlack), 1);
    screen.fill(0, 76, 332, 1, 0x080408);
    EXPECT_TRUE(comes());
    capture.shutdown();
    capture.shutdown();
    EXPECT_EQ(capture.capture_frame(frame), 1);
    EXPECT_EQ(screen.wrong_in(frame), 0U);  // lent pixels outlive the capture
}

TEST_P(X11CaptureTest, ShowsTheMousePointerWhereItIsAndNotWhereItWas) {
    const auto& [name, depth, setup] = GetParam();
    const auto server = Xvfb::start(setup);
    if (!server) GTEST_SKIP() << "Xvfb cannot be started in this way on this machine";
    Screen screen(*server, 333, 77, depth);
    screen.fill(0x838183);
    // Opaque, half, nothing, ...
    screen.set_pointer({0xFFFF8001, 0x80402010, 0x00000000, 0xFF000000, 0x01010101, 0x7F7F007F,
                        0x00000000, 0xFFFFFFFF, 0xC0000000});
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    CapturedFrame frame;
    const auto shown = [&] {
        return test::eventually([&] { return screen.shown_by(capture, frame); });
    };
    const auto expect_pointer_at = [&](int x, int y) {
        SCOPED_TRACE(std::to_string(x) + ", " + std::to_string(y));
        screen.move_pointer(x, y);
        const uint64_t before = frame.content;
        ASSERT_EQ(capture.capture_frame(frame), 0);
        EXPECT_EQ(screen.wrong_in(frame), 0U);
        EXPECT_NE(frame.content, before);
    };
    screen.move_pointer(100, 30);
    EXPECT_TRUE(shown());
    for (const auto& [x, y] : {std::pair{40, 40}, {41, 40}, {0, 0}, {332, 0}, {0, 76}, {332, 76}})
        expect_pointer_at(x, y);
    screen.fill(0xFFFFFF);  // below the pointer, too
    EXPECT_TRUE(shown());
    expect_pointer_at(331, 75);
    screen.resize(200, 50);
    screen.fill(0);
    screen.move_pointer(20, 20);
    EXPECT_TRUE(shown());
    expect_pointer_at(199, 49);
    screen.set_pointer(std::vector<uint32_t>(9, 0xFF112233));
    EXPECT_TRUE(shown());
    screen.set_pointer(std::vector<uint32_t>(9));  // as a game hides it
    EXPECT_TRUE(shown());
}

TEST(X11Capture, ReportsChangesAndReusesAnUnchangedPicture) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    Screen screen(*server, 640, 480);
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    ASSERT_NE(capture.changes(), nullptr);
    CapturedFrame frame;
    const auto capture_for = [&](milliseconds time) {
        const auto until = SteadyClock::now() + time;
        while (SteadyClock::now() < until)
            ASSERT_EQ(capture.capture_frame(frame), 0);
    };
    capture_for(milliseconds(300));  // until the server's own start-up changes are over
    const uint64_t content = frame.content;
    const uint64_t taken = frame.timestamp;
    const uint64_t announced = capture.changes()->count();
    capture_for(milliseconds(500));  // checks in between
    EXPECT_EQ(frame.content, content);
    EXPECT_GT(frame.timestamp, taken);
    EXPECT_EQ(capture.changes()->count(), announced);
    for (uint32_t colour = 1; colour < 6; ++colour) {
        const auto before = SteadyClock::now();
        const uint64_t earlier = capture.changes()->count();
        screen.fill(colour);
        EXPECT_TRUE(test::eventually([&] { return capture.changes()->count() > earlier; }));
        SteadyClock::time_point reported{};
        capture.changes()->take([&](SteadyClock::time_point at) { reported = at; });
        EXPECT_GE(reported + milliseconds(1), before);
        EXPECT_LE(reported, SteadyClock::now());
        ASSERT_EQ(capture.capture_frame(frame), 0);
        EXPECT_EQ(screen.wrong_in(frame), 0U);
    }
}

TEST(X11Capture, DoesNotTrustAServerThatHidesChanges) {
    const test::TempDir memory;  // of the screen, as a file
    const auto server =
        Xvfb::start({.screen = "64x64x24", .arguments = {"-fbdir", memory.path().string()}});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    Screen screen(*server, 64, 64);
    const LogCapture log;
    X11Capture capture(server->display());
    ASSERT_TRUE(capture.init());
    const UniqueFd file(::open((memory.path() / "Xvfb_screen0").c_str(), O_RDWR));
    const off_t pixels = ::lseek(file.get(), 0, SEEK_END) - off_t{64} * 64 * 4;
    CapturedFrame frame;
    const auto shows = [&] { return screen.shown_by(capture, frame); };
    const auto change_unannounced = [&](size_t first, size_t count, uint32_t colour) {
        std::fill_n(screen.root.begin() + static_cast<ptrdiff_t>(first), count, colour);
        const size_t bytes = screen.root.size() * 4;
        ASSERT_EQ(::pwrite(file.get(), screen.root.data(), bytes, pixels),
                  static_cast<ssize_t>(bytes));
    };
    constexpr const char* kLine = "the screen changes without the X server telling of it";
    ASSERT_TRUE(test::eventually(shows));
    uint32_t picture = 0;
    EXPECT_TRUE(test::eventually([&] {
        change_unannounced(37 * 64 + 5, 1, ++picture);  // a single pixel
        return capture.capture_frame(frame) == 0 && log.times(kLine) > 0;
    }));
    EXPECT_EQ(capture.changes(), nullptr);
    for (uint32_t colour = 1; colour < 5; ++colour) {
        change_unannounced(0, screen.root.size(), colour);
        EXPECT_TRUE(shows());
    }
    EXPECT_EQ(log.times(kLine), 1);
}

TEST(PictureFreshness, ALateAnnouncementIsNotAHiddenChange) {
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

TEST(X11Capture, DoesNotWaitForAHangingServerOnceCancelled) {
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
    EXPECT_EQ(log.times("the X server of " + server->display() + " does not answer — restart"), 1);
}

}  // namespace
}  // namespace ox
