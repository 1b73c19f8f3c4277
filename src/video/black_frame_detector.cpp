#include "video/black_frame_detector.h"

#include <algorithm>

namespace ox {
namespace {

constexpr uint32_t kPatchRows = 32;
constexpr size_t kPatchRowBytes = size_t{64} * 4;
constexpr uint8_t kDarkest = 8;  // brighter bytes count as lit

bool row_is_lit(const uint8_t* row, size_t bytes) {
    for (size_t i = 0; i < bytes; ++i) {
        if (i % 4 != 3 && row[i] > kDarkest) return true;
    }
    return false;
}

}  // namespace

bool BlackFrameDetector::observe(const uint8_t* rows, size_t stride, size_t row_bytes,
                                 uint32_t height) {
    const size_t bytes = std::min(row_bytes, kPatchRowBytes);
    const uint32_t patch_rows = std::min(height, kPatchRows);
    for (uint32_t y = 0; y < patch_rows; ++y) {
        if (row_is_lit(rows + y * stride, bytes)) {
            black_frames_ = 0;
            warned_ = false;
            return false;
        }
    }
    if (warned_ || ++black_frames_ < kWarnAfter) return false;
    warned_ = true;
    return true;
}

}  // namespace ox
