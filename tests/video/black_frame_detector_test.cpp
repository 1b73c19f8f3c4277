#include "video/black_frame_detector.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

TEST(BlackFrameDetector, WarnsOncePerRunAndRearmsOnALitPicture) {
    constexpr size_t kRow = 640 * 4;
    std::vector<uint8_t> bytes(kRow * 480, 255);
    for (size_t i = 0; i < 32 * kRow; ++i) {  // what is looked at: 64 x 32 pixels, without alpha
        if (i % kRow < 64 * 4 && i % 4 != 3) bytes[i] = 8;
    }
    BlackFrameDetector detector;
    const auto warned = [&] { return detector.observe(bytes.data(), kRow, kRow, 480); };
    for (const size_t lit : {size_t{2}, 31 * kRow + 63 * 4}) {
        for (int i = 1; i < 120; ++i)
            ASSERT_FALSE(warned()) << i;
        EXPECT_TRUE(warned());
        for (int i = 0; i < 300; ++i)
            ASSERT_FALSE(warned());
        bytes[lit] = 9;
        EXPECT_FALSE(warned());
        bytes[lit] = 8;
    }
}

}  // namespace
}  // namespace ox
