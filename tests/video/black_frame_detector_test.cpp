#include "video/black_frame_detector.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

struct Picture {
    explicit Picture(size_t row, uint32_t rows)
        : row_bytes(row), height(rows), bytes(row_bytes * rows) {}
    bool shown_to(BlackFrameDetector& detector) const {
        return detector.observe(bytes.data(), row_bytes, row_bytes, height);
    }
    size_t row_bytes;
    uint32_t height;
    std::vector<uint8_t> bytes;  // of exactly the picture's size: a sanitizer sees a step outside
};

TEST(BlackFrameDetector, WarnsOncePerRunAndRearmsOnALitPicture) {
    const Picture black(640 * 4, 480);
    Picture lit = black;
    lit.bytes[0] = 9;
    BlackFrameDetector detector;
    for (int run = 0; run < 2; ++run) {
        for (int i = 1; i < 120; ++i)
            ASSERT_FALSE(black.shown_to(detector)) << i;
        EXPECT_TRUE(black.shown_to(detector));
        for (int i = 0; i < 300; ++i)
            ASSERT_FALSE(black.shown_to(detector));
        EXPECT_FALSE(lit.shown_to(detector));
    }
    for (int i = 1; i < 120; ++i)
        black.shown_to(detector);
    lit.shown_to(detector);  // the 119 before do not count any more
    EXPECT_FALSE(black.shown_to(detector));
}

TEST(BlackFrameDetector, LooksAtColourBytesOfThePatchOnly) {
    const size_t row = 640 * 4;
    const struct {
        size_t offset;
        uint8_t value;
        bool lit;
    } cases[] = {
        {0, 8, false},
        {2, 9, true},
        {3, 255, false},               // alpha
        {31 * row + 63 * 4, 9, true},  // last pixel of the patch
        {31 * row + 64 * 4, 255, false},
        {32 * row, 255, false},
    };
    for (const auto& [offset, value, lit] : cases) {
        Picture picture(row, 480);
        picture.bytes[offset] = value;
        BlackFrameDetector detector;
        bool warned = false;
        for (uint32_t i = 0; i < BlackFrameDetector::kWarnAfter; ++i)
            warned |= picture.shown_to(detector);
        EXPECT_EQ(warned, !lit) << "byte " << offset << " = " << int{value};
    }
}

}  // namespace
}  // namespace ox
