// What is done to the pixels between a capture and an encoder.

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "video/black_frame_detector.h"
#include "video/picture_converter.h"
#include "video/pixel_unpacker.h"

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
        EXPECT_FALSE(detector.is_black()) << "outside of the corner it is white";
        bytes[lit] = 9;
        EXPECT_FALSE(warned());
        bytes[lit] = 8;
    }
    // A locked screen with its pointer.
    std::fill(bytes.begin(), bytes.end(), uint8_t{0});
    for (size_t y = 200; y < 232; ++y)
        std::fill_n(bytes.begin() + static_cast<ptrdiff_t>(y * kRow + 400), 24 * 4, uint8_t{255});
    for (int i = 0; i < 120; ++i) {
        EXPECT_FALSE(detector.is_black());
        warned();
    }
    EXPECT_TRUE(detector.is_black());
    bytes[2] = 9;
    warned();
    EXPECT_FALSE(detector.is_black());
}

TEST(PixelUnpacker, StretchesEveryChannelToAByte) {
    const PixelLayout rgb555{16, false, 0x7C00, 0x03E0, 0x001F};
    const PixelLayout bgr32{32, false, 0x0000FF, 0x00FF00, 0xFF0000};
    const PixelLayout deep{32, false, 0x3FF00000, 0x000FFC00, 0x000003FF};
    const PixelLayout grey{8, false, 0, 0, 0};
    const PixelLayout wide{64, false, ~0ULL, 0xFFFFFFFFULL, 0xFFFFFULL};
    const struct {
        PixelLayout layout;
        uint64_t pixel;
        uint32_t bgra;  // as a little-endian word: 0xAARRGGBB
    } cases[] = {
        {rgb555, 0xFFFF, 0xFFFFFFFF},   {rgb555, 0x0010, 0xFF000083},
        {bgr32, 0x112233, 0xFF332211},  {deep, 0x20080200, 0xFF7F7F7F},
        {deep, 0x3FF00001, 0xFFFF0000}, {grey, 0xFF, 0xFF000000},
        {wide, ~0ULL, 0xFFFFFFFF},      {wide, 0x80000, 0xFF00007F},
    };
    for (const auto& [layout, pixel, bgra] : cases) {
        EXPECT_EQ(PixelUnpacker(layout).to_bgra(pixel), bgra) << std::hex << pixel;
    }
}

// The fourth byte of lent pixels may hold anything.
TEST(PictureConverter, ColoursComeOutRightByEitherRoad) {
    const struct {
        uint32_t bgra;
        int y, cb, cr;  // BT.601, limited range
    } colours[] = {{0xFFFFFFFF, 235, 128, 128},
                   {0x00000000, 16, 128, 128},
                   {0x77FF0000, 82, 90, 240},
                   {0x0000FF00, 145, 54, 34},
                   {0xFF0000FF, 41, 240, 110}};
    constexpr uint32_t kWidth = 64;
    constexpr uint32_t kHeight = 32;
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}) {
        for (const uint32_t scale : {1U, 2U}) {
            PictureConverter converter(format, kWidth, kHeight);
            const AvFramePtr frame(av_frame_alloc());
            frame->format = format;
            frame->width = kWidth;
            frame->height = kHeight;
            ASSERT_EQ(av_frame_get_buffer(frame.get(), 32), 0);
            ASSERT_TRUE(converter.ensure_input_ready(kWidth * scale, kHeight * scale));
            for (const auto& [bgra, y, cb, cr] : colours) {
                const std::vector<uint32_t> picture(size_t{kWidth} * kHeight * scale * scale, bgra);
                const auto* bytes = reinterpret_cast<const uint8_t*>(picture.data());
                ASSERT_TRUE(converter.convert(bytes, *frame));
                const bool planar = format == AV_PIX_FMT_YUV420P;
                for (int i = 0; i < static_cast<int>(kWidth) / 2; ++i) {
                    const int line = 7;
                    const uint8_t* second = frame->data[1] + line * frame->linesize[1];
                    const uint8_t* third = frame->data[2] + line * frame->linesize[2];
                    EXPECT_NEAR(frame->data[0][2 * line * frame->linesize[0] + 2 * i], y, 1);
                    EXPECT_NEAR(planar ? second[i] : second[2 * i], cb, 1);
                    EXPECT_NEAR(planar ? third[i] : second[2 * i + 1], cr, 1);
                }
            }
        }
    }
}

}  // namespace
}  // namespace ox
