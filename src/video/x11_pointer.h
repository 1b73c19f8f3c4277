#pragma once

// Private to this folder, like the header it includes.
#include <xcb/xcb.h>

#include <memory>
#include <optional>

#include "video/cursor_overlay.h"
#include "video/x11_connection.h"

namespace ox {

/// The mouse pointer of an X screen: its picture, which the server announces when it changes (the
/// XFIXES extension), and its place. Must not outlive its connection.
class X11Pointer {
  public:
    /// Null when the server does not know XFIXES.
    static std::unique_ptr<X11Pointer> open(XConnection& connection);
    ~X11Pointer();
    X11Pointer(const X11Pointer&) = delete;
    X11Pointer& operator=(const X11Pointer&) = delete;

    /// Takes notice of a new picture; other events are none of its business.
    void on_event(const XEvent& event);

    /// Asks where a visible pointer is, without waiting: the answer comes with that to the next
    /// request.
    void ask();
    /// Takes the answer in, and a new picture where there is one.
    void update();

    [[nodiscard]] bool visible() const { return visible_ && on_screen_; }
    [[nodiscard]] const CursorImage& image() const { return image_; }
    [[nodiscard]] int x() const { return x_; }
    [[nodiscard]] int y() const { return y_; }
    /// Changes whenever the pointer looks different.
    [[nodiscard]] uint64_t look() const { return look_; }

  private:
    X11Pointer(XConnection& connection, int event_type)
        : connection_(connection), event_type_(event_type) {}
    void fetch_image();
    void take_answer();

    XConnection& connection_;
    int event_type_;
    bool image_is_old_ = true;
    CursorImage image_;
    bool visible_ = false;  // there is something of the picture to be seen
    bool on_screen_ = false;
    int x_ = 0;
    int y_ = 0;
    uint64_t look_ = 0;
    std::optional<xcb_query_pointer_cookie_t> asked_;
};

}  // namespace ox
