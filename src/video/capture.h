#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "desktop/desktop.h"
#include "video/change_times.h"

namespace ox {

/// How far the scaler's vector code may read past the last pixel of a picture, which it does where
/// the width is odd. All memory that holds pictures has that many readable bytes more.
inline constexpr size_t kReadSlack = 64;

/// Gives `pixels` that many bytes, and the slack behind them.
inline void resize_with_slack(std::vector<uint8_t>& pixels, size_t bytes) {
    pixels.reserve(bytes + kReadSlack);
    pixels.resize(bytes);
}

/// A number for a picture's content that no other picture of this process has, whichever capture
/// it comes from. Any thread.
inline uint64_t next_content() {
    static std::atomic<uint64_t> last{0};
    return ++last;
}

/// One picture: width x height pixels, 4 bytes each in the order B, G, R, A, no row padding.
///
/// The pixels lie in `data`, or, where a backend can lend them without a copy, in memory that
/// `lent` keeps alive; read them through `pixels()`. Lent pixels change with the backend's next
/// successful `capture_frame` and stay readable for as long as the frame holds them, also after the
/// backend's shutdown. Their fourth byte is undefined; in `data` it is 255.
struct CapturedFrame {
    std::vector<uint8_t> data;
    std::shared_ptr<const uint8_t> lent;
    uint32_t width = 0;
    uint32_t height = 0;
    uint64_t timestamp = 0;  ///< steady-clock us when the picture was taken; 0 when not known
    /// Names the pixels (`next_content`): two frames with the same number hold the same. 0:
    /// unknown.
    uint64_t content = 0;

    [[nodiscard]] const uint8_t* pixels() const { return lent ? lent.get() : data.data(); }
    [[nodiscard]] bool empty() const {
        return width == 0 || height == 0 || (!lent && data.empty());
    }
};

/// What a source of pictures says of itself.
enum class CaptureState : uint8_t {
    Live,           ///< pictures come, or would if anything changed
    Doubtful,       ///< it may be over; which way is known within about a second
    Lost,           ///< it is over, by no wish of the owner: opening it anew may bring it back
    Gone,           ///< it is over, or never was, and this is not the owner's doing
    OwnerStopped,   ///< the PC's owner has ended the share
    OwnerDeclined,  ///< the PC's owner has refused it
    OwnerAbsent,    ///< nobody at the PC has answered whether it may be shared
};

/// A source of screen pictures. Used by one thread.
class ICapture {
  public:
    virtual ~ICapture() = default;
    /// Prepares the backend. False, after a log line, when it cannot work.
    virtual bool init() = 0;
    /// Fills `frame` and returns 0; returns 1 when there is no picture (frame is left as it was).
    virtual int capture_frame(CapturedFrame& frame) = 0;
    [[nodiscard]] virtual uint32_t width() const = 0;
    [[nodiscard]] virtual uint32_t height() const = 0;
    /// When the picture changed, as far as the backend hears of it; null where it does not. Valid
    /// until the next call of another function.
    [[nodiscard]] virtual ChangeTimes* changes() { return nullptr; }
    /// How it is with the source now, or, after an `init` without success, why. Looked at with
    /// every picture and as long as nobody watches; never waits.
    virtual CaptureState state() { return CaptureState::Live; }
    /// Nothing but black has come for a while.
    [[nodiscard]] virtual bool black() const { return false; }
    /// Releases everything. Safe to call twice.
    virtual void shutdown() {}
};

/// Whether `make_capture` goes through the desktop's portal, which may ask the PC's owner.
[[nodiscard]] bool asks_the_portal(const std::string& mode, const Desktop& desktop);

/// The backend for `mode` ("auto", "x11", "portal", "synthetic") on this desktop, whose session
/// decides what "auto" means; the size is that of the synthetic picture. `cancelled` may be asked
/// as long as the backend lives, from other threads, too. True ends every wait: the portal's for
/// the user at once, and one for an X server that hangs a second later. `awaiting_owner` is told by
/// `init` that the user is being asked for approval (true), and then that the answer is there or
/// not waited for any more (false).
std::unique_ptr<ICapture> make_capture(const std::string& mode, const Desktop& desktop,
                                       uint32_t width, uint32_t height,
                                       std::function<bool()> cancelled = {},
                                       std::function<void(bool)> awaiting_owner = {});
/// The same on the desktop of this process's environment; `display` is an X display name or empty
/// for `$DISPLAY`.
std::unique_ptr<ICapture> make_capture(const std::string& mode, const std::string& display,
                                       uint32_t width, uint32_t height,
                                       std::function<bool()> cancelled = {});

}  // namespace ox
