#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/clock.h"
#include "desktop/desktop.h"
#include "video/black_frame_detector.h"
#include "video/capture.h"
#include "video/cursor_overlay.h"
#include "video/picture_freshness.h"

namespace ox {

class X11DamageWatch;
class X11Pointer;
class XConnection;
class XGrabber;
class XImageReader;
struct ScreenSize;

/// Pictures of an X screen's root window. With MIT-SHM and the usual pixel layout a frame lends the
/// segment into which the server writes (no copy); in every other case the pixels are unpacked into
/// the frame. Each picture carries the mouse pointer. Follows the screen when its size changes. A
/// server that goes away makes `capture_frame` return 1 from then on, and ends nothing else.
///
/// Where the server tells of changes, a screen that did not change is not fetched again: the frame
/// is the earlier one with a new time.
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
    [[nodiscard]] ChangeTimes* changes() override;
    /// `Gone` when the server has ended, and after two seconds without a picture.
    CaptureState state() override;
    [[nodiscard]] bool black() const override { return black_frames_.is_black(); }
    void shutdown() override;

  private:
    bool connect();
    void watch_changes();
    void show_pointer();
    bool set_up(ScreenSize size);
    void take_events();
    bool refresh();
    bool check_kept_picture(SteadyClock::time_point now);
    bool grab_current_size();
    void report_outage();
    void watch_for_black();
    void lift_pointer();
    void lay_pointer(PictureView picture);
    void deliver(CapturedFrame& frame);
    [[nodiscard]] uint64_t hash_of_image() const;
    [[nodiscard]] PictureView lent_memory() const;

    std::string display_name_;
    XAuthorization authorization_;
    std::function<bool()> cancelled_;
    std::unique_ptr<XConnection> connection_;
    std::unique_ptr<X11DamageWatch> damage_;  // null where the server's word is not to be had
    std::unique_ptr<X11Pointer> pointer_;     // null where the server does not show it
    std::unique_ptr<XGrabber> grabber_;       // null while the screen's size cannot be captured
    std::unique_ptr<XImageReader> reader_;    // of the grabber's images
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    bool lends_ = false;
    PictureFreshness freshness_;
    std::optional<uint64_t> kept_hash_;  // of the grabber's image, where it is known
    CursorOverlay overlay_;              // on lent memory
    uint64_t shown_look_ = 0;            // the pointer's in the last frame; 0: no pointer
    uint64_t content_ = 0;
    BlackFrameDetector black_frames_;
    std::optional<SteadyClock::time_point> outage_since_;
    uint64_t frames_ = 0;
};

}  // namespace ox
