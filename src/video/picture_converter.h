#pragma once

#include <cstdint>

#include "video/av_handles.h"

namespace ox {

/// Brings BGRA pictures of any size into an encoder's pixel format and size (limited-range BT.601).
/// Pictures that have the encoded size already are only converted, which is many times faster and
/// more exact than a scaler's work at equal sizes.
class PictureConverter {
  public:
    /// `format` is YUV420P or NV12.
    PictureConverter(AVPixelFormat format, uint32_t width, uint32_t height)
        : format_(format), width_(width), height_(height) {}

    /// Prepares for pictures of this size, unless it is what the last call was for. False, after a
    /// log line, when they cannot be converted.
    bool ensure_input_ready(uint32_t source_width, uint32_t source_height);

    /// Converts tightly packed pixels of the prepared size into `out`, a writable frame of the
    /// format and encoded size.
    bool convert(const uint8_t* pixels, AVFrame& out) const;

  private:
    AVPixelFormat format_;
    uint32_t width_;
    uint32_t height_;
    uint32_t source_width_ = 0;  // 0: not prepared
    uint32_t source_height_ = 0;
    SwsContextPtr scaler_;  // null when nothing is to be scaled
};

}  // namespace ox
