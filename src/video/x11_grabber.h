#pragma once

// Private to this folder, like the header it includes.
#include <X11/Xutil.h>

#include <cstdint>
#include <memory>

#include "video/x11_connection.h"

namespace ox {

/// Fetches pictures of the whole root window, in one of two ways. Must not outlive its connection;
/// what it lends may.
class XGrabber {
  public:
    virtual ~XGrabber() = default;

    /// Fetches the picture anew. On failure the earlier one stays.
    virtual bool grab() = 0;
    /// The picture, valid until the next `grab`; undefined pixels before the first.
    [[nodiscard]] virtual const XImage& image() const = 0;
    /// The picture's memory with a share in its ownership; null where it cannot be lent. It stays
    /// mapped as long as somebody holds it, and changes with `grab`.
    [[nodiscard]] virtual std::shared_ptr<const uint8_t> lend() const = 0;
    /// The Xlib call behind `grab`, for log lines.
    [[nodiscard]] virtual const char* call_name() const = 0;
};

/// Grabs into a memory segment shared with the server (MIT-SHM). Null when the server cannot do
/// that or cannot reach the segment; the latter has its log line.
std::unique_ptr<XGrabber> make_shm_grabber(XConnection& connection, ScreenSize size);

/// Grabs through the connection (`XGetImage`). Null when the trial grab fails.
std::unique_ptr<XGrabber> make_plain_grabber(XConnection& connection, ScreenSize size);

}  // namespace ox
