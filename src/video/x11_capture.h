#pragma once

#include <array>
#include <cstddef>
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

/// Pictures of an X root window, with the mouse pointer; follows changes of its size. With MIT-SHM
/// and the usual layout a frame lends the segment into which the server writes. Where the server
/// announces changes, an unchanged screen is not fetched again: the frame only has a new time. Once
/// the server is gone, `capture_frame` returns 1.
class X11Capture final : public ICapture {
  public:
    static constexpr uint32_t kMaxSide = 8192;

    /// An empty `display` is `$DISPLAY`; without an authorization Xlib looks for one. `cancelled`
    /// may be empty; any thread calls it: once true, a hanging server is waited for a second.
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
    [[nodiscard]] bool is_black() const override { return black_frames_.is_black(); }
    void shutdown() override;

  private:
    bool connect();
    void start_damage_watch();
    void open_pointer();
    bool set_up(ScreenSize size);
    void process_events();
    bool refresh();
    bool is_unchanged(SteadyClock::time_point now);
    bool grab_current_size();
    void report_outage();
    void check_for_black();
    void erase_pointer();
    void draw_pointer(PictureView picture);
    void fill_frame(CapturedFrame& frame);
    void hash_all_rows();
    [[nodiscard]] uint64_t hash_of_rows(size_t set) const;
    [[nodiscard]] PictureView lent_memory() const;

    std::string display_name_;
    XAuthorization authorization_;
    std::function<bool()> cancelled_;
    std::unique_ptr<XConnection> connection_;
    std::unique_ptr<X11DamageWatch> damage_;  // null where changes are not (reliably) announced
    std::unique_ptr<X11Pointer> pointer_;     // null without XFIXES
    std::unique_ptr<XGrabber> grabber_;       // null while the screen's size cannot be captured
    std::unique_ptr<XImageReader> reader_;    // of the grabber's images
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    bool lends_ = false;
    PictureFreshness freshness_;
    static constexpr size_t kRowSets = 4;
    /// Of the grabber's image, if known: of every fourth row, from each of the first four on.
    std::optional<std::array<uint64_t, kRowSets>> row_hashes_;
    size_t checks_ = 0;
    CursorOverlay overlay_;       // on lent memory
    uint64_t drawn_pointer_ = 0;  // its version in the last frame; 0: no pointer
    uint64_t content_ = 0;
    BlackFrameDetector black_frames_;
    std::optional<SteadyClock::time_point> outage_since_;
    uint64_t frames_ = 0;
};

}  // namespace ox
