#include "video/x11_pointer.h"

#include <X11/Xlib-xcb.h>
#include <X11/extensions/Xfixes.h>

#include <cstdlib>
#include <utility>

namespace ox {
namespace {

struct XFreeDeleter {
    void operator()(void* data) const { XFree(data); }
};
struct FreeDeleter {
    void operator()(void* data) const { std::free(data); }  // NOLINT: its owner
};

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
    if (asked_) xcb_discard_reply(XGetXCBConnection(connection_.display()), asked_->sequence);
}

void X11Pointer::on_event(const XEvent& event) {
    if (event.type == event_type_) image_is_old_ = true;
}

void X11Pointer::ask() {
    // A pointer that is not to be seen, as in most games, costs no question.
    if (!visible_ || asked_) return;
    asked_ = xcb_query_pointer(XGetXCBConnection(connection_.display()),
                               static_cast<xcb_window_t>(connection_.root()));
}

void X11Pointer::update() {
    if (std::exchange(image_is_old_, false)) fetch_image();
    ask();  // unless that has been done
    take_answer();
}

void X11Pointer::fetch_image() {
    constexpr uint32_t kMaxSide = 4096;
    ++look_;
    visible_ = false;
    const std::unique_ptr<XFixesCursorImage, XFreeDeleter> fetched(
        XFixesGetCursorImage(connection_.display()));
    if (!fetched || fetched->width > kMaxSide || fetched->height > kMaxSide) return;
    image_.width = fetched->width;
    image_.height = fetched->height;
    image_.hot_x = fetched->xhot;
    image_.hot_y = fetched->yhot;
    const size_t pixels = size_t{image_.width} * image_.height;
    // Each comes in an unsigned long, whatever its size.
    image_.pixels.assign(fetched->pixels, fetched->pixels + pixels);
    visible_ = image_.visible();
}

void X11Pointer::take_answer() {
    if (!asked_) return;
    xcb_generic_error_t* refused = nullptr;
    const std::unique_ptr<xcb_query_pointer_reply_t, FreeDeleter> answer(xcb_query_pointer_reply(
        XGetXCBConnection(connection_.display()), *std::exchange(asked_, std::nullopt), &refused));
    const std::unique_ptr<xcb_generic_error_t, FreeDeleter> error(refused);
    if (!answer) return;
    const bool on_screen = answer->same_screen != 0;
    if (on_screen != on_screen_ || answer->root_x != x_ || answer->root_y != y_) ++look_;
    on_screen_ = on_screen;
    x_ = answer->root_x;
    y_ = answer->root_y;
}

}  // namespace ox
