#pragma once

#include <cstdint>

#include "video/libav.h"

namespace ox {

/// Converts BGRA pictures of any size to an encoder's format and size (limited-range BT.601). Those
/// of the encoded size are not scaled: many times faster, and more exact.
class PictureConverter {
  public:
    enum class Result {
        Converted,
        BadSize,  ///< such pictures cannot be converted; logged
        Failed,
    };

    PictureConverter(AVPixelFormat format, uint32_t width, uint32_t height)
        : format_(format), width_(width), height_(height) {}

    /// Converts tightly packed pixels into `out`, a writable frame of the format and encoded size.
    Result convert(const uint8_t* pixels, uint32_t source_width, uint32_t source_height,
                   AVFrame& out);

  private:
    bool set_source_size(uint32_t source_width, uint32_t source_height);

    AVPixelFormat format_;
    uint32_t width_;
    uint32_t height_;
    uint32_t source_width_ = 0;  // of the last picture; 0: none yet
    uint32_t source_height_ = 0;
    SwsContextPtr scaler_;  // null when equal in size
};

}  // namespace ox
