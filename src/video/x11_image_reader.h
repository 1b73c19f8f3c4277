#pragma once

// Private to this folder, like the header it includes.
#include <X11/Xutil.h>

#include <cstddef>
#include <cstdint>

#include "video/pixel_unpacker.h"

namespace ox {

/// Reads the pixels of images of one layout.
class XImageReader {
  public:
    XImageReader() = default;
    explicit XImageReader(const XImage& image);

    /// The image's memory is a BGRA picture without row padding, but for its fourth bytes.
    [[nodiscard]] bool is_picture() const { return is_picture_; }

    /// Writes the pixels as BGRA, alpha 255, without row padding.
    void read(const XImage& image, uint8_t* out) const;

    [[nodiscard]] static const uint8_t* row_of(const XImage& image, uint32_t y);
    /// Bytes of a row that hold pixels.
    [[nodiscard]] static size_t row_bytes(const XImage& image);

  private:
    PixelUnpacker unpacker_;
    bool direct_bgra_ = false;
    bool is_picture_ = false;
};

}  // namespace ox
