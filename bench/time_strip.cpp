#include "time_strip.h"

#include <algorithm>

namespace ox::bench {
namespace {

constexpr uint64_t kTimeMask = (uint64_t{1} << 48) - 1;

// Fletcher's sum over the six bytes; never zero for the all-black strip.
uint16_t checksum(uint64_t time_us) {
    uint32_t a = 1;
    uint32_t b = 7;
    for (int i = 0; i < 6; ++i) {
        a = (a + static_cast<uint8_t>(time_us >> (8 * i))) % 255;
        b = (b + a) % 255;
    }
    return static_cast<uint16_t>(b << 8 | a);
}

}  // namespace

StripBitmap draw_strip(uint64_t time_us) {
    time_us &= kTimeMask;
    const uint64_t bits = time_us | uint64_t{checksum(time_us)} << 48;
    StripBitmap bitmap{};
    constexpr size_t kRowBytes = kStripWidth / 8;
    constexpr size_t kBlockBytes = kStripBlock / 8;
    for (size_t bit = 0; bit < kStripBits; ++bit) {
        const uint8_t value = (bits >> bit & 1) != 0 ? 0xFF : 0x00;
        std::fill_n(bitmap.begin() + static_cast<ptrdiff_t>(bit * kBlockBytes), kBlockBytes, value);
    }
    for (size_t row = 1; row < kStripBlock; ++row) {
        std::copy_n(bitmap.begin(), kRowBytes,
                    bitmap.begin() + static_cast<ptrdiff_t>(row * kRowBytes));
    }
    return bitmap;
}

std::optional<uint64_t> read_strip(const uint8_t* luma, ptrdiff_t stride, uint32_t width,
                                   uint32_t height) {
    if (width < kStripWidth || height < kStripBlock) return std::nullopt;
    uint64_t bits = 0;
    for (uint32_t bit = 0; bit < kStripBits; ++bit) {
        // The inner half of the block: its rim carries the codec's ringing.
        uint32_t sum = 0;
        for (uint32_t y = 4; y < 12; ++y) {
            for (uint32_t x = 4; x < 12; ++x)
                sum += luma[y * stride + bit * kStripBlock + x];
        }
        if (sum / 64 > 127) bits |= uint64_t{1} << bit;
    }
    const uint64_t time_us = bits & kTimeMask;
    if (bits >> 48 != checksum(time_us)) return std::nullopt;
    return time_us;
}

}  // namespace ox::bench
