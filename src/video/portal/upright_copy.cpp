#include "video/portal/upright_copy.h"

#include <libyuv/convert_argb.h>
#include <libyuv/rotate_argb.h>
#include <spa/buffer/meta.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace ox::portal {
namespace {

constexpr size_t kPixelBytes = 4;

/// A quarter turn to the left, `turns` times, after a flip around the vertical axis if `flipped`.
struct Turn {
    int turns = 0;
    bool flipped = false;
};

Turn turn_of(uint32_t transform) {
    if (transform > SPA_META_TRANSFORMATION_Flipped270) return {};
    constexpr uint32_t kQuarters = 4;
    return {.turns = static_cast<int>(transform % kQuarters),
            .flipped = transform >= SPA_META_TRANSFORMATION_Flipped};
}

void copy_rows(const MappedPicture& picture, size_t row_bytes, uint32_t rows, uint8_t* to) {
    if (picture.stride == row_bytes) {
        std::memcpy(to, picture.rows, row_bytes * rows);
        return;
    }
    for (uint32_t row = 0; row < rows; ++row)
        std::memcpy(to + row * row_bytes, picture.rows + row * picture.stride, row_bytes);
}

void mirror_rows(uint8_t* pixels, PictureSize size) {
    const size_t row_bytes = size.width * kPixelBytes;
    for (uint32_t y = 0; y < size.height; ++y) {
        uint8_t* left = pixels + y * row_bytes;
        uint8_t* right = left + row_bytes - kPixelBytes;
        for (; left < right; left += kPixelBytes, right -= kPixelBytes)
            std::swap_ranges(left, left + kPixelBytes, right);
    }
}

}  // namespace

PictureSize upright_size(PictureSize size, uint32_t transform) {
    if (turn_of(transform).turns % 2 != 0) std::swap(size.width, size.height);
    return size;
}

// libyuv names formats by their 32-bit word: its "ARGB" is B, G, R, A in memory, its "ABGR" R, G,
// B, A.
void copy_upright(const MappedPicture& picture, const PictureFormat& format, uint32_t transform,
                  uint8_t* to) {
    const Turn turn = turn_of(transform);
    const PictureSize size = upright_size(format.size, transform);
    const int to_stride = static_cast<int>(size.width * kPixelBytes);
    const int from_stride = static_cast<int>(picture.stride);
    const auto width = static_cast<int>(format.size.width);
    const auto height = static_cast<int>(format.size.height);
    if (turn.turns == 0 && format.red_first) {
        libyuv::ABGRToARGB(picture.rows, from_stride, to, to_stride, width, height);
    } else if (turn.turns == 0) {
        copy_rows(picture, format.size.width * kPixelBytes, format.size.height, to);
    } else {
        // To the right, as far as it was turned to the left.
        constexpr libyuv::RotationMode kBack[] = {libyuv::kRotate0, libyuv::kRotate90,
                                                  libyuv::kRotate180, libyuv::kRotate270};
        libyuv::ARGBRotate(picture.rows, from_stride, to, to_stride, width, height,
                           kBack[turn.turns]);
        if (format.red_first) {
            libyuv::ABGRToARGB(to, to_stride, to, to_stride, static_cast<int>(size.width),
                               static_cast<int>(size.height));
        }
    }
    if (turn.flipped) mirror_rows(to, size);
}

}  // namespace ox::portal
