#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"

struct _XDisplay;
struct _XGC;

namespace ox::test {

/// An entry of an X authority file (xauth(1)): counted strings after a family, all numbers
/// big-endian.
inline std::string x_authority_entry(uint16_t family, const std::string& host,
                                     const std::string& number, const std::string& scheme,
                                     const std::string& data) {
    const auto number16 = [](size_t value) {
        return std::string{static_cast<char>(value >> 8), static_cast<char>(value & 0xFF)};
    };
    std::string bytes = number16(family);
    for (const auto& text : {host, number, scheme, data})
        bytes += number16(text.size()) + text;
    return bytes;
}

/// A test's own X server on an unused display.
class Xvfb {
  public:
    struct Setup {
        std::string screen = "640x480x24";        ///< width x height x depth
        std::vector<std::string> arguments = {};  ///< more of them, e.g. "-extension", "MIT-SHM"
        std::vector<std::string> wrapper = {};    ///< runs it: "unshare", "--ipc"
    };

    /// Null when the server does not start: Xvfb is not installed, or the wrapper fails.
    static std::unique_ptr<Xvfb> start(const Setup& setup);

    /// ":7", for XOpenDisplay and the `DISPLAY` variable.
    [[nodiscard]] const std::string& display() const { return display_; }
    [[nodiscard]] ChildProcess& process() { return *process_; }
    /// SIGKILL, and waits until the server is gone.
    void kill();

  private:
    std::unique_ptr<ChildProcess> process_;
    std::string display_;
};

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
