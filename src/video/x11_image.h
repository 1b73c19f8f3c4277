#pragma once

// Private to this folder, like the header it includes.
#include <X11/Xutil.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "video/pixel_unpacker.h"
#include "video/x11_connection.h"

namespace ox {

/// Fetches pictures of the whole root window, in one of two ways. Must not outlive its connection;
/// lent memory may.
class XGrabber {
  public:
    virtual ~XGrabber() = default;

    /// Fetches a new picture. On failure the earlier one stays.
    virtual bool grab() = 0;
    /// The picture, valid until the next `grab`; undefined pixels before the first.
    [[nodiscard]] virtual const XImage& image() const = 0;
    /// Shares the picture's memory; null where that is impossible. It stays mapped while held, and
    /// changes with `grab`.
    [[nodiscard]] virtual std::shared_ptr<const uint8_t> lend() const = 0;
    /// The Xlib call behind `grab`, for log lines.
    [[nodiscard]] virtual const char* call_name() const = 0;
};

/// Grabs into a memory segment shared with the server (MIT-SHM). Null when the server does not
/// support that or, after a log line, cannot attach the segment.
std::unique_ptr<XGrabber> make_shm_grabber(XConnection& connection, ScreenSize size);

/// Grabs through the connection (`XGetImage`). Null when the trial grab fails.
std::unique_ptr<XGrabber> make_plain_grabber(XConnection& connection, ScreenSize size);

/// Reads the pixels of images of one layout.
class XImageReader {
  public:
    XImageReader() = default;
    explicit XImageReader(const XImage& image);

    /// The image's memory is a BGRA picture without row padding; its fourth bytes are undefined.
    [[nodiscard]] bool is_bgra_picture() const { return is_bgra_picture_; }

    /// Writes the pixels as BGRA, alpha 255, without row padding.
    void read(const XImage& image, uint8_t* out) const;

    [[nodiscard]] static const uint8_t* row_of(const XImage& image, uint32_t y);
    /// Bytes of a row that hold pixels.
    [[nodiscard]] static size_t row_bytes(const XImage& image);

  private:
    PixelUnpacker unpacker_;
    bool direct_bgra_ = false;
    bool is_bgra_picture_ = false;
};

}  // namespace ox
