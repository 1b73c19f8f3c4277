#pragma once

// Private to this folder, like the header it includes.
#include <X11/Xutil.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "video/pixel_unpacker.h"
#include "video/x11_connection.h"

namespace ox {

/// Fetches pictures of the root window. Must not outlive its connection; lent memory may.
class XGrabber {
  public:
    virtual ~XGrabber() = default;

    /// Fetches a new picture. On failure the earlier one stays.
    virtual bool grab() = 0;
    /// The picture, valid until the next `grab`; undefined pixels before the first.
    [[nodiscard]] virtual const XImage& image() const = 0;
    /// Null where impossible. Stays mapped while held, and changes with `grab`.
    [[nodiscard]] virtual std::shared_ptr<const uint8_t> lend() const = 0;
    /// The Xlib call behind `grab`, for log lines.
    [[nodiscard]] virtual const char* call_name() const = 0;
};

/// MIT-SHM. Null when not supported or, after a log line, when the segment cannot be attached.
std::unique_ptr<XGrabber> make_shm_grabber(XConnection& connection, ScreenSize size);

/// Grabs through the connection (`XGetImage`). Null when the trial grab fails.
std::unique_ptr<XGrabber> make_plain_grabber(XConnection& connection, ScreenSize size);

class XImageReader {
  public:
    XImageReader() = default;
    explicit XImageReader(const XImage& image);

    /// The image's memory is a BGRA picture without row padding; its fourth bytes are undefined.
    [[nodiscard]] bool is_bgra_picture() const { return is_bgra_picture_; }

    void read(const XImage& image, uint8_t* out) const;

    [[nodiscard]] static const uint8_t* row_of(const XImage& image, uint32_t y);
    [[nodiscard]] static size_t row_bytes(const XImage& image);

  private:
    PixelUnpacker unpacker_;
    bool direct_bgra_ = false;
    bool is_bgra_picture_ = false;
};

}  // namespace ox
