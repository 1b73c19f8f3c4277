#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "app/options.h"
#include "app/session/capture_opening.h"
#include "base/clock.h"
#include "tui/board/board.h"
#include "video/capture.h"

namespace ox {

/// The capture of one session: opens it, looks after its source for as long as the session lasts,
/// opens a lost one anew beside the running session, and has the player's input withheld as long as
/// the player cannot see what it does. Owned and used by the session's thread.
class SessionCapture {
  public:
    /// `withhold_input` is called from any thread.
    SessionCapture(const Options& options, std::function<void(bool)> withhold_input);

    /// The first opening, with the fallbacks of `select_capture`; blocks. False when nothing works
    /// or `cancelled`, which is asked for as long as this lives, has become true. `width` and
    /// `height` are those of a synthetic picture.
    bool open(uint32_t width, uint32_t height, const std::function<bool()>& cancelled);

    /// Looks at the source; to be called with every frame and while a launcher is waited for. False
    /// when the PC's owner has ended the share: the session is to end at once.
    bool look_after(SteadyClock::time_point now);

    /// A launcher has come back: what the owner has not approved is asked for once more.
    void launcher_returned();

    ICapture* operator->() const { return capture_.get(); }

    void shutdown();

  private:
    void take_state(CaptureState state, SteadyClock::time_point now);
    void begin_opening();
    void finish_opening(SteadyClock::time_point now);
    void owner_ended(tui::CaptureTrouble trouble);
    void watch_for_black();
    void await_owner(bool awaiting);
    void settle();
    void show(tui::PictureState picture);

    const Options& options_;
    std::function<void(bool)> withhold_input_;
    std::function<bool()> cancelled_;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    std::unique_ptr<ICapture> capture_;
    std::atomic<bool> awaiting_owner_{false};  ///< also written by the opening's thread
    bool not_approved_ = false;  ///< a substitute is shown, as the owner has not approved
    bool lost_ = false;
    bool doubtful_ = false;
    bool unanswered_ = false;  ///< it is lost, and nobody has approved it anew
    bool ended_ = false;       ///< by the owner
    bool black_ = false;
    int failures_ = 0;                                 ///< to open it anew, in a row
    std::optional<SteadyClock::time_point> next_try_;  ///< none: not to be opened anew
    tui::PictureState shown_ = tui::PictureState::Fine;
    std::unique_ptr<CaptureOpening> opening_;  ///< last: its thread uses the others
};

}  // namespace ox
