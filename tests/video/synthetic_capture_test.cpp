#include "video/synthetic_capture.h"

#include <gtest/gtest.h>

#include <array>

namespace ox {
namespace {

using Pixel = std::array<int, 4>;

Pixel at(const CapturedFrame& frame, uint32_t x, uint32_t y) {
    const uint8_t* pixel = frame.pixels() + (size_t{y} * frame.width + x) * 4;
    return {pixel[0], pixel[1], pixel[2], pixel[3]};
}

// The number in the corner is read by every test of the whole agent.
TEST(SyntheticCapture, DrawsDarkeningBars) {
    SyntheticCapture capture(640, 360);
    ASSERT_TRUE(capture.init());
    CapturedFrame frame;
    for (int i = 0; i <= 0x25; ++i)
        ASSERT_EQ(capture.capture_frame(frame), 0);
    ASSERT_EQ(frame.data.size(), 640U * 360 * 4);
    // Row 8: 255 - 60*8/360 = 254; 200*254/255 = 199. Row 359: 196, and 153.
    const struct {
        uint32_t x, y;
        Pixel pixel;
    } cases[] = {{0, 8, {199, 199, 199, 255}},   {80, 359, {153, 153, 0, 255}},
                 {160, 359, {0, 153, 153, 255}}, {240, 359, {0, 153, 0, 255}},
                 {320, 359, {153, 0, 153, 255}}, {400, 359, {153, 0, 0, 255}},
                 {480, 359, {0, 0, 153, 255}},   {639, 359, {19, 19, 19, 255}},
                 {256, 0, {0, 200, 0, 255}}};
    for (const auto& [x, y, pixel] : cases)
        EXPECT_EQ(at(frame, x, y), pixel) << x << "," << y;
}

TEST(SyntheticCapture, TakesSidesFrom1To8192) {
    EXPECT_TRUE(SyntheticCapture(1, 1).init());
    EXPECT_TRUE(SyntheticCapture(8192, 8).init());
    EXPECT_FALSE(SyntheticCapture(0, 600).init());
    EXPECT_FALSE(SyntheticCapture(8, 8193).init());
}

}  // namespace
}  // namespace ox
