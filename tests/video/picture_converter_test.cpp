#include "video/picture_converter.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

constexpr uint32_t kWidth = 64;
constexpr uint32_t kHeight = 32;

AvFramePtr make_frame(AVPixelFormat format) {
    AvFramePtr frame(av_frame_alloc());
    frame->format = format;
    frame->width = kWidth;
    frame->height = kHeight;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 32), 0);
    return frame;
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
    for (const AVPixelFormat format : {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}) {
        for (const uint32_t scale : {1U, 2U}) {
            PictureConverter converter(format, kWidth, kHeight);
            const AvFramePtr frame = make_frame(format);
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
