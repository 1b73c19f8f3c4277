#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct _XDisplay;
struct _XGC;

namespace ox::test {

/// Paints onto the root window of an X server, changes its size and its mouse pointer.
class XPainter {
  public:
    /// Hides the root window's mouse pointer. Throws std::runtime_error when there is no such
    /// server.
    explicit XPainter(const std::string& display);
    ~XPainter();
    XPainter(const XPainter&) = delete;
    XPainter& operator=(const XPainter&) = delete;

    /// Fills a rectangle with a pixel value of the screen's depth (0xRRGGBB at 24, RGB565 at 16).
    /// All calls wait until the server is done.
    void fill(int x, int y, uint32_t width, uint32_t height, uint32_t pixel);

    /// What the screen, of depth 24, shows there: 0xRRGGBB, row by row.
    std::vector<uint32_t> read(uint32_t width, uint32_t height);

    /// Resizes the screen through RandR, up to the size the server was started with.
    void resize_screen(uint32_t width, uint32_t height);

    /// Sets the root window's mouse pointer: these pixels (alpha highest, premultiplied) with this
    /// hot spot.
    void set_pointer(const std::vector<uint32_t>& argb, uint32_t width, int hot_x, int hot_y);
    void move_pointer(int x, int y);

  private:
    _XDisplay* display_;
    _XGC* gc_;
};

}  // namespace ox::test
