#include "video/cursor_overlay.h"

#include <algorithm>
#include <cstring>

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;
constexpr uint32_t kOpaque = 0xFF000000;

/// The part of [at, at + length) within [0, limit).
struct Span {
    uint32_t begin = 0;
    uint32_t size = 0;
    uint32_t skipped = 0;  // pixels before `begin`

    Span(int64_t at, uint32_t length, uint32_t limit) {
        const int64_t first = std::clamp<int64_t>(at, 0, limit);
        const int64_t last = std::clamp<int64_t>(at + length, 0, limit);
        begin = static_cast<uint32_t>(first);
        size = static_cast<uint32_t>(last - first);
        skipped = static_cast<uint32_t>(first - at);
    }
};

uint32_t blend(uint32_t over, uint32_t under) {
    const uint32_t rest = 255 - (over >> 24);
    uint32_t result = kOpaque;
    for (int shift = 0; shift < 24; shift += 8) {
        const uint32_t sum = (over >> shift & 0xFF) + ((under >> shift & 0xFF) * rest + 127) / 255;
        result |= std::min<uint32_t>(sum, 255) << shift;
    }
    return result;
}

uint8_t* row_at(const PictureView& picture, uint32_t x, uint32_t y) {
    return picture.pixels + (size_t{y} * picture.width + x) * kPixelBytes;
}

}  // namespace

bool CursorImage::visible() const {
    return std::ranges::any_of(pixels, [](uint32_t pixel) { return pixel >> 24 != 0; });
}

void CursorOverlay::draw(PictureView picture, const CursorImage& cursor, int x, int y) {
    const Span across(int64_t{x} - cursor.hot_x, cursor.width, picture.width);
    const Span down(int64_t{y} - cursor.hot_y, cursor.height, picture.height);
    reset();
    if (across.size == 0 || down.size == 0) return;
    left_ = across.begin;
    top_ = down.begin;
    width_ = across.size;
    height_ = down.size;
    below_.resize(size_t{width_} * height_);
    for (uint32_t row = 0; row < height_; ++row) {
        uint8_t* out = row_at(picture, left_, top_ + row);
        uint32_t* saved = below_.data() + size_t{row} * width_;
        std::memcpy(saved, out, size_t{width_} * kPixelBytes);
        const uint32_t* over =
            cursor.pixels.data() + size_t{row + down.skipped} * cursor.width + across.skipped;
        for (uint32_t column = 0; column < width_; ++column) {
            if (over[column] >> 24 == 0) continue;
            const uint32_t pixel = blend(over[column], saved[column]);
            std::memcpy(out + column * kPixelBytes, &pixel, kPixelBytes);
        }
    }
}

void CursorOverlay::restore(PictureView picture) {
    for (uint32_t row = 0; row < height_ && width_ > 0; ++row) {
        std::memcpy(row_at(picture, left_, top_ + row), below_.data() + size_t{row} * width_,
                    size_t{width_} * kPixelBytes);
    }
    reset();
}

}  // namespace ox
