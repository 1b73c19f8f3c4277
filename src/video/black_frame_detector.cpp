#include "video/black_frame_detector.h"

#include <algorithm>

namespace ox {
namespace {

constexpr uint32_t kPatchRows = 32;
constexpr size_t kUnitBytes = 4;
constexpr size_t kPatchRowBytes = 64 * kUnitBytes;
constexpr uint8_t kDarkest = 8;  // brighter bytes count as lit

bool is_lit(const uint8_t* unit) {
    return unit[0] > kDarkest || unit[1] > kDarkest || unit[2] > kDarkest;
}

size_t lit_units(const uint8_t* row, size_t bytes) {
    size_t lit = 0;
    for (size_t i = 0; i + kUnitBytes <= bytes; i += kUnitBytes)
        lit += is_lit(row + i) ? 1 : 0;
    return lit;
}

/// Nothing lit that is larger than a pointer.
bool is_dark_everywhere(const uint8_t* rows, size_t stride, size_t row_bytes, uint32_t height) {
    constexpr uint32_t kRowStep = 8;
    constexpr size_t kPointerShare = 256;  // a pointer covers at most 1/256 of the picture
    size_t lit = 0;
    size_t seen = 0;
    for (uint32_t y = 0; y < height; y += kRowStep, seen += row_bytes / kUnitBytes)
        lit += lit_units(rows + y * stride, row_bytes);
    return lit * kPointerShare <= seen;
}

}  // namespace

bool BlackFrameDetector::observe(const uint8_t* rows, size_t stride, size_t row_bytes,
                                 uint32_t height) {
    const size_t bytes = std::min(row_bytes, kPatchRowBytes);
    const uint32_t patch_rows = std::min(height, kPatchRows);
    for (uint32_t y = 0; y < patch_rows; ++y) {
        if (lit_units(rows + y * stride, bytes) > 0) {
            black_frames_ = 0;
            all_black_ = false;
            return false;
        }
    }
    if (++black_frames_ % kWarnAfter != 0) return false;
    all_black_ = is_dark_everywhere(rows, stride, row_bytes, height);
    return black_frames_ == kWarnAfter;
}

}  // namespace ox
