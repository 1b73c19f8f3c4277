#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "desktop/desktop.h"
#include "video/black_frame_detector.h"
#include "video/capture.h"
#include "video/pixel_unpacker.h"

namespace ox {

class XConnection;
class XGrabber;
struct ScreenSize;

/// Pictures of an X screen's root window. With MIT-SHM and the usual pixel layout a frame lends the
/// segment into which the server writes (no copy); in every other case the pixels are unpacked into
/// the frame. Follows the screen when its size changes. A server that goes away makes
/// `capture_frame` return 1 from then on, and ends nothing else.
class X11Capture final : public ICapture {
  public:
    static constexpr uint32_t kMaxSide = 8192;

    /// `display` is an X display name or empty for `$DISPLAY`; without an authorization Xlib looks
    /// for one. `cancelled` may be empty and is asked from any thread: a second after it has become
    /// true, nothing waits any more for a server that hangs.
    explicit X11Capture(std::string display, XAuthorization authorization = {},
                        std::function<bool()> cancelled = {});
    ~X11Capture() override;

    bool init() override;
    int capture_frame(CapturedFrame& frame) override;
    [[nodiscard]] uint32_t width() const override { return width_; }
    [[nodiscard]] uint32_t height() const override { return height_; }
    void shutdown() override;

  private:
    bool connect();
    bool set_up(ScreenSize size);
    bool grab_current_size();
    void report_outage();
    void watch_for_black();
    void fill(CapturedFrame& frame) const;

    std::string display_name_;
    XAuthorization authorization_;
    std::function<bool()> cancelled_;
    std::unique_ptr<XConnection> connection_;
    std::unique_ptr<XGrabber> grabber_;  // null while the screen's size cannot be captured
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    bool direct_bgra_ = false;
    PixelUnpacker unpacker_;
    BlackFrameDetector black_frames_;
    bool outage_reported_ = false;
    uint64_t frames_ = 0;
};

}  // namespace ox
