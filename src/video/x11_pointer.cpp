#include "video/x11_pointer.h"

#include <X11/Xlib-xcb.h>
#include <X11/extensions/Xfixes.h>

#include <cstdlib>
#include <utility>

#include "base/c_handle.h"

namespace ox {
namespace {

using CursorImagePtr = CHandle<XFixesCursorImage, XFree>;
using PointerReplyPtr = CHandle<xcb_query_pointer_reply_t, std::free>;
using XcbErrorPtr = CHandle<xcb_generic_error_t, std::free>;

}  // namespace

std::unique_ptr<X11Pointer> X11Pointer::open(XConnection& connection) {
    Display* display = connection.display();
    int first_event = 0;
    int first_error = 0;
    if (XFixesQueryExtension(display, &first_event, &first_error) == 0) return nullptr;
    XFixesSelectCursorInput(display, connection.root(), XFixesDisplayCursorNotifyMask);
    return std::unique_ptr<X11Pointer>(
        new X11Pointer(connection, first_event + XFixesCursorNotify));
}

X11Pointer::~X11Pointer() {
    if (position_request_)
        xcb_discard_reply(XGetXCBConnection(connection_.display()), position_request_->sequence);
}

void X11Pointer::on_event(const XEvent& event) {
    if (event.type == event_type_) image_outdated_ = true;
}

void X11Pointer::request_position() {
    // No request for an invisible pointer, as in most games.
    if (!visible_ || position_request_) return;
    position_request_ = xcb_query_pointer(XGetXCBConnection(connection_.display()),
                                          static_cast<xcb_window_t>(connection_.root()));
}

void X11Pointer::update() {
    if (std::exchange(image_outdated_, false)) fetch_image();
    request_position();  // if not yet done
    read_position();
}

void X11Pointer::fetch_image() {
    constexpr uint32_t kMaxSide = 4096;
    ++version_;
    visible_ = false;
    const CursorImagePtr fetched(XFixesGetCursorImage(connection_.display()));
    if (!fetched || fetched->width > kMaxSide || fetched->height > kMaxSide) return;
    image_.width = fetched->width;
    image_.height = fetched->height;
    image_.hot_x = fetched->xhot;
    image_.hot_y = fetched->yhot;
    const size_t pixels = size_t{image_.width} * image_.height;
    // Each pixel is an unsigned long, of 32 or 64 bits.
    image_.pixels.assign(fetched->pixels, fetched->pixels + pixels);
    visible_ = image_.visible();
}

void X11Pointer::read_position() {
    if (!position_request_) return;
    xcb_generic_error_t* refused = nullptr;
    const PointerReplyPtr reply(
        xcb_query_pointer_reply(XGetXCBConnection(connection_.display()),
                                *std::exchange(position_request_, std::nullopt), &refused));
    const XcbErrorPtr error(refused);
    if (!reply) return;
    const bool on_screen = reply->same_screen != 0;
    if (on_screen != on_screen_ || reply->root_x != x_ || reply->root_y != y_) ++version_;
    on_screen_ = on_screen;
    x_ = reply->root_x;
    y_ = reply->root_y;
}

}  // namespace ox
