#pragma once

// Private to this folder, like the header it includes.
#include <xcb/xcb.h>

#include <memory>
#include <optional>

#include "video/cursor_overlay.h"
#include "video/x11_connection.h"

namespace ox {

/// The mouse pointer of an X screen: its picture, whose changes the server announces (the XFIXES
/// extension), and its position. Must not outlive its connection.
class X11Pointer {
  public:
    /// Null when the server lacks XFIXES.
    static std::unique_ptr<X11Pointer> open(XConnection& connection);
    ~X11Pointer();
    X11Pointer(const X11Pointer&) = delete;
    X11Pointer& operator=(const X11Pointer&) = delete;

    /// Handles the announcement of a new picture; ignores other events.
    void on_event(const XEvent& event);

    /// Does not wait: the reply comes with that to the next request.
    void request_position();
    /// Reads the position, and the picture if it is new.
    void update();

    [[nodiscard]] bool visible() const { return visible_ && on_screen_; }
    [[nodiscard]] const CursorImage& image() const { return image_; }
    [[nodiscard]] int x() const { return x_; }
    [[nodiscard]] int y() const { return y_; }
    [[nodiscard]] uint64_t version() const { return version_; }

  private:
    X11Pointer(XConnection& connection, int event_type)
        : connection_(connection), event_type_(event_type) {}
    void fetch_image();
    void read_position();

    XConnection& connection_;
    int event_type_;
    bool image_outdated_ = true;
    CursorImage image_;
    bool visible_ = false;  // the picture is not wholly transparent
    bool on_screen_ = false;
    int x_ = 0;
    int y_ = 0;
    uint64_t version_ = 0;
    std::optional<xcb_query_pointer_cookie_t> position_request_;
};

}  // namespace ox
