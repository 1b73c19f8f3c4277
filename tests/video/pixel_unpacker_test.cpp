#include "video/pixel_unpacker.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace ox {
namespace {

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

}  // namespace
}  // namespace ox
