#include "support/x_painter.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>
#include <X11/extensions/Xrender.h>

#include <memory>
#include <stdexcept>

namespace ox::test {

XPainter::XPainter(const std::string& display) : display_(XOpenDisplay(display.c_str())) {
    if (display_ == nullptr) throw std::runtime_error("no X server " + display);
    // A server that is killed under a test must not take the test with it.
    XSetIOErrorHandler([](Display*) { return 0; });
    XSetIOErrorExitHandler(
        display_, [](Display*, void*) {}, nullptr);
    gc_ = XCreateGC(display_, XDefaultRootWindow(display_), 0, nullptr);
    set_pointer({0}, 1, 0, 0);
}

XPainter::~XPainter() {
    XFreeGC(display_, gc_);
    XCloseDisplay(display_);
}

void XPainter::fill(int x, int y, uint32_t width, uint32_t height, uint32_t pixel) {
    XSetForeground(display_, gc_, pixel);
    XFillRectangle(display_, XDefaultRootWindow(display_), gc_, x, y, width, height);
    XSync(display_, False);
}

void XPainter::set_pointer(const std::vector<uint32_t>& argb, uint32_t width, int hot_x,
                           int hot_y) {
    constexpr unsigned kDepth = 32;
    const Window root = XDefaultRootWindow(display_);
    const auto height = static_cast<uint32_t>(argb.size() / width);
    const Pixmap pixmap = XCreatePixmap(display_, root, width, height, kDepth);
    GC gc = XCreateGC(display_, pixmap, 0, nullptr);
    std::vector<uint32_t> pixels = argb;
    XImage image{};
    image.width = static_cast<int>(width);
    image.height = static_cast<int>(height);
    image.format = ZPixmap;
    image.data = reinterpret_cast<char*>(pixels.data());
    image.byte_order = image.bitmap_bit_order = LSBFirst;
    image.bitmap_unit = image.bitmap_pad = image.bits_per_pixel = image.depth = kDepth;
    image.bytes_per_line = static_cast<int>(width * 4);
    XInitImage(&image);
    XPutImage(display_, pixmap, gc, &image, 0, 0, 0, 0, width, height);
    const Picture picture = XRenderCreatePicture(
        display_, pixmap, XRenderFindStandardFormat(display_, PictStandardARGB32), 0, nullptr);
    const Cursor cursor = XRenderCreateCursor(display_, picture, static_cast<unsigned>(hot_x),
                                              static_cast<unsigned>(hot_y));
    XDefineCursor(display_, root, cursor);
    XFreeCursor(display_, cursor);
    XRenderFreePicture(display_, picture);
    XFreeGC(display_, gc);
    XFreePixmap(display_, pixmap);
    XSync(display_, False);
}

void XPainter::move_pointer(int x, int y) {
    XWarpPointer(display_, None, XDefaultRootWindow(display_), 0, 0, 0, 0, x, y);
    XSync(display_, False);
}

void XPainter::resize_screen(uint32_t width, uint32_t height) {
    constexpr int kMillimetres = 100;  // any will do
    const Window root = XDefaultRootWindow(display_);
    const std::unique_ptr<XRRScreenResources, void (*)(XRRScreenResources*)> resources(
        XRRGetScreenResources(display_, root), XRRFreeScreenResources);
    // A screen cannot become smaller than what its outputs show.
    for (int i = 0; i < resources->ncrtc; ++i) {
        XRRSetCrtcConfig(display_, resources.get(), resources->crtcs[i], CurrentTime, 0, 0, None,
                         RR_Rotate_0, nullptr, 0);
    }
    XRRSetScreenSize(display_, root, static_cast<int>(width), static_cast<int>(height),
                     kMillimetres, kMillimetres);
    XSync(display_, False);
}

}  // namespace ox::test
