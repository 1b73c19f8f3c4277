// The test picture's pixels, and what processes pixels between a capture and an encoder.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "video/black_frame_detector.h"
#include "video/pixel_unpacker.h"
#include "video/synthetic_capture.h"

namespace ox {
namespace {

TEST(BlackFrameDetector, WarnsOncePerRunAndRearmsOnALitPicture) {
    constexpr size_t kRow = 640 * 4;
    std::vector<uint8_t> bytes(kRow * 480, 255);
    for (size_t i = 0; i < 32 * kRow; ++i) {  // the checked 64 x 32 pixels, without alpha
        if (i % kRow < 64 * 4 && i % 4 != 3) bytes[i] = 8;
    }
    BlackFrameDetector detector;
    // Which of the next pictures it warns at.
    const auto warnings_in = [&](int pictures) {
        std::vector<int> warnings;
        for (int i = 1; i <= pictures; ++i)
            if (detector.observe(bytes.data(), kRow, kRow, 480)) warnings.push_back(i);
        return warnings;
    };
    for (const size_t lit : {size_t{2}, 31 * kRow + 63 * 4}) {
        EXPECT_THAT(warnings_in(400), testing::ElementsAre(120));
        EXPECT_FALSE(detector.is_black()) << "outside of the corner it is white";
        bytes[lit] = 9;
        EXPECT_THAT(warnings_in(1), testing::IsEmpty());
        bytes[lit] = 8;
    }
    // A locked screen with its pointer.
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    for (size_t y = 200; y < 232; ++y)
        std::fill_n(bytes.begin() + static_cast<ptrdiff_t>(y * kRow + 400), 24 * 4, uint8_t{255});
    warnings_in(119);
    EXPECT_FALSE(detector.is_black());
    warnings_in(1);
    EXPECT_TRUE(detector.is_black());
    bytes[2] = 9;
    warnings_in(1);
    EXPECT_FALSE(detector.is_black());
}

TEST(PixelUnpacker, StretchesEveryChannelToAByte) {
    const PixelLayout rgb555{16, false, 0x7C00, 0x03E0, 0x001F};
    const PixelLayout bgr32{32, false, 0x0000FF, 0x00FF00, 0xFF0000};
    const PixelLayout deep{32, false, 0x3FF00000, 0x000FFC00, 0x000003FF};
    const PixelLayout grey{8, false, 0, 0, 0};
    const PixelLayout wide{64, false, ~0ULL, 0xFFFFFFFFULL, 0xFFFFFULL};
    const std::tuple<PixelLayout, uint64_t, uint32_t> cases[] = {
        {rgb555, 0xFFFF, 0xFFFFFFFF},   {rgb555, 0x0010, 0xFF000083},
        {bgr32, 0x112233, 0xFF332211},  {deep, 0x20080200, 0xFF7F7F7F},
        {deep, 0x3FF00001, 0xFFFF0000}, {grey, 0xFF, 0xFF000000},
        {wide, ~0ULL, 0xFFFFFFFF},      {wide, 0x80000, 0xFF00007F},
    };
    for (const auto& [layout, pixel, bgra] : cases)
        EXPECT_EQ(PixelUnpacker(layout).to_bgra(pixel), bgra) << std::hex << pixel;
}

// The number in the corner is checked by the tests of the whole agent.
TEST(SyntheticCapture, DrawsBarsThatDarken) {
    SyntheticCapture capture(640, 360);
    ASSERT_TRUE(capture.init());
    CapturedFrame frame;
    ASSERT_EQ(capture.capture_frame(frame), 0);
    const auto pixel = [&](size_t bar, size_t y) {
        uint32_t bgra = 0;
        std::memcpy(&bgra, frame.pixels() + (y * 640 + bar * 80 + 79) * 4, 4);
        return bgra;
    };
    // Row 359: 255 - 60*359/360 = 196; 200*196/255 = 153.
    constexpr uint32_t kLowest[] = {0xFF999999, 0xFF009999, 0xFF999900, 0xFF009900,
                                    0xFF990099, 0xFF000099, 0xFF990000, 0xFF131313};
    for (size_t bar = 0; bar < 8; ++bar)
        EXPECT_EQ(pixel(bar, 359), kLowest[bar]);
    EXPECT_EQ(pixel(7, 180), 0xFF161616);
    EXPECT_TRUE(SyntheticCapture(8192, 1).init());
    EXPECT_FALSE(SyntheticCapture(0, 600).init());
    EXPECT_FALSE(SyntheticCapture(8, 8193).init());
}

}  // namespace
}  // namespace ox
