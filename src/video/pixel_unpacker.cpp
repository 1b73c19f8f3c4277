#include "video/pixel_unpacker.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ox {
namespace {

constexpr uint32_t kOpaque = 0xFF000000U;
// Wider channels are computed: none exist in practice, and their tables would be huge.
constexpr uint64_t kLargestTabled = 0xFFFF;

uint16_t swap_bytes(uint16_t value) {
    return __builtin_bswap16(value);
}
uint32_t swap_bytes(uint32_t value) {
    return __builtin_bswap32(value);
}

uint32_t scale_to_byte(uint64_t value, uint64_t greatest) {
    // Wider ones would overflow the product; their low bits do not show anyway.
    if (greatest > UINT32_MAX) {
        value >>= 32;
        greatest >>= 32;
    }
    return static_cast<uint32_t>(value * 255 / greatest);
}

}  // namespace

bool PixelLayout::is_bgra() const {
    return bits_per_pixel == 32 && !msb_first && red_mask == 0xFF0000 && green_mask == 0x00FF00 &&
           blue_mask == 0x0000FF;
}

PixelUnpacker::Channel::Channel(uint64_t channel_mask, int out_shift)
    : mask(channel_mask), target(out_shift) {
    if (mask == 0) {
        table.assign(1, 0);
        return;
    }
    shift = std::countr_zero(mask);
    greatest = mask >> shift;
    if (greatest > kLargestTabled) return;
    for (uint64_t value = 0; value <= greatest; ++value) {
        table.push_back(scale_to_byte(value, greatest) << target);
    }
}

uint32_t PixelUnpacker::Channel::at(uint64_t pixel) const {
    const uint64_t value = (pixel & mask) >> shift;
    return table.empty() ? scale_to_byte(value, greatest) << target : table[value];
}

PixelUnpacker::PixelUnpacker(const PixelLayout& layout)
    : layout_(layout),
      channels_{Channel(layout.blue_mask, 0), Channel(layout.green_mask, 8),
                Channel(layout.red_mask, 16)} {}

bool PixelUnpacker::reads_rows() const {
    return layout_.bits_per_pixel == 16 || layout_.bits_per_pixel == 32;
}

uint32_t PixelUnpacker::to_bgra(uint64_t pixel) const {
    return kOpaque | channels_[0].at(pixel) | channels_[1].at(pixel) | channels_[2].at(pixel);
}

template <typename Pixel>
void PixelUnpacker::unpack_row_of(const uint8_t* row, uint32_t width, uint8_t* out) const {
    // Locals: bytes written to `out` may alias the members.
    struct Lookup {
        uint64_t mask;
        int shift;
        const uint32_t* table;
        uint32_t at(uint64_t pixel) const { return table[(pixel & mask) >> shift]; }
    };
    const auto lookup = [this](size_t i) {
        const Channel& channel = channels_[i];
        return Lookup{channel.mask, channel.shift, channel.table.data()};
    };
    const Lookup blue = lookup(0);
    const Lookup green = lookup(1);
    const Lookup red = lookup(2);
    const bool msb_first = layout_.msb_first;
    const bool tabled = std::ranges::none_of(
        channels_, [](const Channel& channel) { return channel.table.empty(); });
    for (uint32_t x = 0; x < width; ++x) {
        Pixel pixel;
        std::memcpy(&pixel, row + x * sizeof pixel, sizeof pixel);
        if (msb_first) pixel = swap_bytes(pixel);
        const uint32_t bgra =
            tabled ? kOpaque | blue.at(pixel) | green.at(pixel) | red.at(pixel) : to_bgra(pixel);
        std::memcpy(out + x * sizeof bgra, &bgra, sizeof bgra);
    }
}

void PixelUnpacker::unpack_row(const uint8_t* row, uint32_t width, uint8_t* out) const {
    if (layout_.bits_per_pixel == 16) unpack_row_of<uint16_t>(row, width, out);
    if (layout_.bits_per_pixel == 32) unpack_row_of<uint32_t>(row, width, out);
}

void copy_bgra_opaque(const uint8_t* from, size_t pixels, uint8_t* to) {
    for (size_t i = 0; i < pixels; ++i) {
        uint32_t pixel;
        std::memcpy(&pixel, from + i * sizeof pixel, sizeof pixel);
        pixel |= kOpaque;
        std::memcpy(to + i * sizeof pixel, &pixel, sizeof pixel);
    }
}

}  // namespace ox
