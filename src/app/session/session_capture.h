#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "app/options.h"
#include "base/clock.h"
#include "tui/board/board.h"
#include "video/capture_factory.h"

namespace ox {

/// Opens a capture on a thread of its own, since the PC's owner may take long to approve it. Used
/// by one thread. Destroying it cancels the attempt.
class CaptureOpening {
  public:
    using Cancelled = std::function<bool()>;
    struct Result {
        std::unique_ptr<ICapture> capture;  ///< may be null
        bool works = false;                 ///< its `init` succeeded
    };
    /// Makes and initialises a capture, on the thread. A copy of the predicate may be kept.
    using Open = std::function<Result(const Cancelled& cancelled)>;

    /// `cancelled` also cancels it; called from any thread.
    CaptureOpening(Open open, Cancelled cancelled);
    ~CaptureOpening();
    CaptureOpening(const CaptureOpening&) = delete;
    CaptureOpening& operator=(const CaptureOpening&) = delete;

    std::optional<Result> take_result();

  private:
    std::shared_ptr<std::atomic<bool>> abandoned_ = std::make_shared<std::atomic<bool>>(false);
    std::atomic<bool> done_{false};
    Result result_;  ///< the thread's until `done_`, then the owner's
    std::jthread thread_;
};

/// The capture of one session: reopens a lost one, and withholds the player's input while the
/// player cannot see its effect. Used by the session's thread.
class SessionCapture {
  public:
    /// `withhold_input` is called from any thread.
    SessionCapture(const Options& options, std::function<void(bool)> withhold_input);

    /// With `select_capture`'s fallbacks; blocks. False when nothing works or `cancelled`, called
    /// as long as this object exists, is true. The size is a synthetic picture's.
    bool open(uint32_t width, uint32_t height, const std::function<bool()>& cancelled);

    /// Checks the source; called with every frame and while a launcher is awaited. False when the
    /// PC's owner has ended the share: the session has to end at once.
    bool look_after(SteadyClock::time_point now);

    /// A launcher has come back: asks the owner again for what was not approved.
    void launcher_returned();

    ICapture* operator->() const { return capture_.get(); }

    void shutdown();

  private:
    [[nodiscard]] CaptureRequest request(const std::function<bool()>& cancelled) const;
    void handle_state(CaptureState state, SteadyClock::time_point now);
    void begin_opening();
    void finish_opening(CaptureOpening::Result result, SteadyClock::time_point now);
    void handle_owner_end(tui::CaptureTrouble trouble);
    void check_for_black();
    void set_awaiting_owner(bool awaiting);
    void update_input_and_board();
    void show(tui::PictureState picture);

    const Options& options_;
    std::function<void(bool)> withhold_input_;
    std::function<bool()> cancelled_;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    std::unique_ptr<ICapture> capture_;
    std::atomic<bool> awaiting_owner_{false};  ///< also written by the opening's thread
    bool not_approved_ = false;                ///< a fallback is shown until the owner approves
    bool lost_ = false;
    bool doubtful_ = false;
    bool unanswered_ = false;  ///< it is lost, and nobody answered the new request
    bool ended_ = false;       ///< by the owner
    bool black_ = false;
    int failures_ = 0;                                 ///< to reopen it, in a row
    std::optional<SteadyClock::time_point> next_try_;  ///< none: not to be reopened
    tui::PictureState shown_ = tui::PictureState::Fine;
    std::unique_ptr<CaptureOpening> opening_;  ///< last: its thread uses the others
};

}  // namespace ox
