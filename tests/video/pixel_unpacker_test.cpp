#include "video/pixel_unpacker.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace ox {
namespace {

TEST(PixelUnpacker, StretchesEveryChannelToAByte) {
    const PixelLayout rgb565{16, false, 0xF800, 0x07E0, 0x001F};
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
        {rgb565, 0x0000, 0xFF000000},   {rgb565, 0xFFFF, 0xFFFFFFFF},
        {rgb565, 0xF800, 0xFFFF0000},   {rgb565, 0x8410, 0xFF838183},  // 16 of 31, 32 of 63
        {rgb565, 0x0821, 0xFF080408},                                  // 1 of 31 and 63
        {rgb555, 0xFFFF, 0xFFFFFFFF},   {rgb555, 0x0010, 0xFF000083},
        {bgr32, 0x112233, 0xFF332211},  {deep, 0x20080200, 0xFF7F7F7F},
        {deep, 0x3FF00001, 0xFFFF0000}, {grey, 0xFF, 0xFF000000},
        {wide, ~0ULL, 0xFFFFFFFF},      {wide, 0x80000, 0xFF00007F},
    };
    for (const auto& [layout, pixel, bgra] : cases) {
        EXPECT_EQ(PixelUnpacker(layout).to_bgra(pixel), bgra) << std::hex << pixel;
    }
}

}  // namespace
}  // namespace ox
