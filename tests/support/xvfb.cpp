#include "support/xvfb.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xrandr.h>
#include <X11/extensions/Xrender.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>

namespace ox::test {

std::unique_ptr<Xvfb> Xvfb::start(const Setup& setup) {
    int ends[2];
    if (::pipe(ends) != 0) return nullptr;  // the server inherits the writing end
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    // Random: the display of a killed server is not soon reused by another test.
    const std::string display = ":" + std::to_string(100 + std::random_device()() % 50'000);
    ChildProcess::Options options;
    options.argv = setup.wrapper;
    const std::vector<std::string> arguments{
        "Xvfb",     display,     "-displayfd", std::to_string(writing.get()),
        "-noreset", "-nolisten", "tcp",        "-screen",
        "0",        setup.screen};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.argv.insert(options.argv.end(), setup.arguments.begin(), setup.arguments.end());

    std::unique_ptr<Xvfb> server(new Xvfb);
    server->process_ = std::make_unique<ChildProcess>(options);
    writing.reset();
    pollfd listening{reading.get(), POLLIN, 0};
    char digit = 0;
    if (::poll(&listening, 1, 20'000) != 1 || ::read(reading.get(), &digit, 1) != 1) return nullptr;
    server->display_ = display;
    return server;
}

void Xvfb::kill() {
    process_->signal(SIGKILL);
    process_->wait(std::chrono::seconds(20));
}

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

std::vector<uint32_t> XPainter::read(uint32_t width, uint32_t height) {
    XImage* image =
        XGetImage(display_, XDefaultRootWindow(display_), 0, 0, width, height, 0xFFFFFF, ZPixmap);
    if (image == nullptr) throw std::runtime_error("the screen cannot be read");
    std::vector<uint32_t> pixels(size_t{width} * height);
    std::memcpy(pixels.data(), image->data, pixels.size() * sizeof(uint32_t));
    XDestroyImage(image);
    return pixels;
}

void XPainter::set_pointer(const std::vector<uint32_t>& argb, uint32_t width, int hot_x,
                           int hot_y) {
    const Window root = XDefaultRootWindow(display_);
    const auto height = static_cast<uint32_t>(argb.size() / width);
    const Pixmap pixmap = XCreatePixmap(display_, root, width, height, 32);
    const Picture picture = XRenderCreatePicture(
        display_, pixmap, XRenderFindStandardFormat(display_, PictStandardARGB32), 0, nullptr);
    for (uint32_t at = 0; at < argb.size(); ++at) {
        const auto channel = [&](int shift) {
            return static_cast<unsigned short>((argb[at] >> shift & 0xFF) * 0x101);
        };
        const XRenderColor colour{channel(16), channel(8), channel(0), channel(24)};
        XRenderFillRectangle(display_, PictOpSrc, picture, &colour, static_cast<int>(at % width),
                             static_cast<int>(at / width), 1, 1);
    }
    const Cursor cursor = XRenderCreateCursor(display_, picture, static_cast<unsigned>(hot_x),
                                              static_cast<unsigned>(hot_y));
    XDefineCursor(display_, root, cursor);
    XFreeCursor(display_, cursor);
    XRenderFreePicture(display_, picture);
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
    for (int i = 0; i < resources->ncrtc; ++i)
        XRRSetCrtcConfig(display_, resources.get(), resources->crtcs[i], CurrentTime, 0, 0, None,
                         RR_Rotate_0, nullptr, 0);
    XRRSetScreenSize(display_, root, static_cast<int>(width), static_cast<int>(height),
                     kMillimetres, kMillimetres);
    XSync(display_, False);
}

}  // namespace ox::test
