#include "video/synthetic_capture.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "support/log_capture.h"

namespace ox {
namespace {

using Pixel = std::array<int, 4>;
constexpr Pixel kWhite{255, 255, 255, 255};
constexpr Pixel kBlack{0, 0, 0, 255};

Pixel at(const CapturedFrame& frame, uint32_t x, uint32_t y) {
    const uint8_t* pixel = frame.pixels() + (size_t{y} * frame.width + x) * 4;
    return {pixel[0], pixel[1], pixel[2], pixel[3]};
}

CapturedFrame frame_number(SyntheticCapture& capture, uint32_t n) {
    CapturedFrame frame;
    for (uint32_t i = 0; i <= n; ++i)
        EXPECT_EQ(capture.capture_frame(frame), 0);
    return frame;
}

TEST(SyntheticCapture, DrawsDarkeningBars) {
    SyntheticCapture capture(640, 360);
    ASSERT_TRUE(capture.init());
    const CapturedFrame frame = frame_number(capture, 0);
    ASSERT_EQ(frame.data.size(), 640U * 360 * 4);
    EXPECT_NE(frame.timestamp, 0U);
    // Row 50 lies below the box: 255 - 60*50/360 = 247; 200*247/255 = 193. Row 359: 196.
    EXPECT_EQ(at(frame, 0, 50), (Pixel{193, 193, 193, 255}));
    EXPECT_EQ(at(frame, 79, 50), (Pixel{193, 193, 193, 255}));
    EXPECT_EQ(at(frame, 80, 50), (Pixel{193, 193, 0, 255}));
    EXPECT_EQ(at(frame, 160, 50), (Pixel{0, 193, 193, 255}));
    EXPECT_EQ(at(frame, 240, 50), (Pixel{0, 193, 0, 255}));
    EXPECT_EQ(at(frame, 320, 359), (Pixel{153, 0, 153, 255}));
    EXPECT_EQ(at(frame, 400, 359), (Pixel{153, 0, 0, 255}));
    EXPECT_EQ(at(frame, 480, 359), (Pixel{0, 0, 153, 255}));
    EXPECT_EQ(at(frame, 639, 359), (Pixel{19, 19, 19, 255}));

    SyntheticCapture narrow(9, 20);  // bars of one pixel, and one pixel beyond the eighth bar
    ASSERT_TRUE(narrow.init());
    const CapturedFrame small = frame_number(narrow, 0);
    EXPECT_EQ(at(small, 6, 10), (Pixel{0, 0, 176, 255}));
    EXPECT_EQ(at(small, 7, 10), (Pixel{22, 22, 22, 255}));
    EXPECT_EQ(at(small, 8, 10), (Pixel{22, 22, 22, 255}));
}

TEST(SyntheticCapture, StampsTheFrameNumber) {
    SyntheticCapture capture(640, 360);
    ASSERT_TRUE(capture.init());
    const CapturedFrame frame = frame_number(capture, 0x25);
    for (uint32_t bit = 0; bit < 32; ++bit) {
        const Pixel expected = (0x25U >> bit & 1U) != 0 ? kWhite : kBlack;
        EXPECT_EQ(at(frame, bit * 8, 0), expected) << bit;
        EXPECT_EQ(at(frame, bit * 8 + 7, 7), expected) << bit;
    }
    EXPECT_EQ(at(frame, 256, 0), (Pixel{0, 200, 0, 255}));
    EXPECT_EQ(at(frame, 0, 8), (Pixel{199, 199, 199, 255}));

    // A frame handed in again, and damaged, is drawn anew.
    CapturedFrame reused = frame;
    reused.data.assign(100, 7);
    reused.lent = std::make_shared<const uint8_t>();
    ASSERT_EQ(capture.capture_frame(reused), 0);
    EXPECT_EQ(at(reused, 600, 300), at(frame, 600, 300));
}

TEST(SyntheticCapture, MovesTheBoxToAndFro) {
    // The box is 10 x 30 and moves within 70 x 210; rows below the stamp are looked at.
    SyntheticCapture capture(80, 240);
    ASSERT_TRUE(capture.init());
    const struct {
        uint32_t n, left, top;
    } cases[] = {{4, 20, 12}, {14, 70, 42},  {15, 65, 45},  {28, 0, 84},
                 {29, 5, 87}, {70, 70, 210}, {71, 65, 207}, {140, 0, 0}};
    CapturedFrame frame;
    uint32_t next = 0;
    for (const auto& [n, left, top] : cases) {
        for (; next <= n; ++next)
            capture.capture_frame(frame);
        for (uint32_t y = 8; y < 240; ++y) {
            for (uint32_t x = 0; x < 80; ++x) {
                const bool inside = x >= left && x < left + 10 && y >= top && y < top + 30;
                ASSERT_EQ(at(frame, x, y) == kWhite, inside) << n << ": " << x << "," << y;
            }
        }
    }
}

TEST(SyntheticCapture, TakesSidesFrom1To8192) {
    const struct {
        uint32_t width, height;
        bool good;
    } cases[] = {{1, 1, true},       {7, 5, true},     {8192, 8, true}, {0, 600, false},
                 {9000, 600, false}, {8, 8193, false}, {8, 0, false}};
    for (const auto& [width, height, good] : cases) {
        const test::LogCapture log;
        SyntheticCapture capture(width, height);
        CapturedFrame frame;
        EXPECT_EQ(capture.init(), good);
        EXPECT_EQ(capture.capture_frame(frame), good ? 0 : 1);
        const std::string size = std::to_string(width) + "x" + std::to_string(height);
        EXPECT_EQ(log.count("ERROR", "SyntheticCapture: bad size " + size), good ? 0 : 1);
        EXPECT_EQ(log.count("INFO", "SyntheticCapture: " + size + " test pattern"), good ? 1 : 0);
    }
}

}  // namespace
}  // namespace ox
