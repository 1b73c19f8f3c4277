#include "app/session/session_capture.h"

#include <algorithm>
#include <utility>

#include "app/session/capture_selection.h"
#include "app/session/session_board.h"
#include "log/log.h"

namespace ox {
namespace {

using tui::CaptureTrouble;
using tui::PictureState;

/// Pause before a source that did not open is tried again.
std::chrono::seconds pause_after(int failures) {
    constexpr int kMostDoublings = 6;
    return std::chrono::seconds(1 << std::clamp(failures - 1, 0, kMostDoublings));
}

}  // namespace

SessionCapture::SessionCapture(const Options& options, std::function<void(bool)> withhold_input)
    : options_(options), withhold_input_(std::move(withhold_input)) {}

bool SessionCapture::open(uint32_t width, uint32_t height, const std::function<bool()>& cancelled) {
    width_ = width;
    height_ = height;
    cancelled_ = cancelled;
    const Desktop desktop = desktop_for(options_, cancelled);
    // A player who sees nothing could answer the desktop's question in the owner's place.
    withhold_input_(asks_the_portal(options_.capture, desktop));
    SelectedCapture selected =
        select_capture(options_.capture, desktop, width, height, cancelled, [this](bool awaiting) {
            await_owner(awaiting);
            show(awaiting ? PictureState::AwaitingOwner : PictureState::Fine);
        });
    capture_ = std::move(selected.capture);
    not_approved_ = selected.not_approved;
    if (capture_) settle();
    return capture_ != nullptr;
}

bool SessionCapture::look_after(SteadyClock::time_point now) {
    if (opening_ && opening_->done()) finish_opening(now);
    if (!ended_ && !opening_) take_state(capture_->state(), now);
    if (next_try_ && now >= *next_try_) begin_opening();
    watch_for_black();
    settle();
    return !ended_;
}

void SessionCapture::take_state(CaptureState state, SteadyClock::time_point now) {
    const bool was_lost = lost_;
    doubtful_ = state == CaptureState::Doubtful;
    switch (state) {
        case CaptureState::Live:
            lost_ = false;
            break;
        case CaptureState::Doubtful:
            break;
        case CaptureState::Lost:
            lost_ = true;
            if (!was_lost) next_try_ = now;
            break;
        case CaptureState::Gone:
        case CaptureState::OwnerAbsent:
            lost_ = true;
            break;
        case CaptureState::OwnerStopped:
            owner_ended(CaptureTrouble::Stopped);
            return;
        case CaptureState::OwnerDeclined:
            owner_ended(CaptureTrouble::Declined);
            return;
    }
    if (lost_ && !was_lost) {
        OX_WARN("Session: the source of the pictures is gone — input is withheld until it is back");
    } else if (was_lost && !lost_) {
        OX_INFO("Session: pictures come again — input is let through");
    }
}

void SessionCapture::owner_ended(CaptureTrouble trouble) {
    ended_ = true;
    withhold_input_(true);
    OX_WARN("Session: the owner of the PC has %s the screen share — ending",
            trouble == CaptureTrouble::Declined ? "declined" : "stopped");
    tui::board().raise_capture(trouble);
}

void SessionCapture::launcher_returned() {
    if (!opening_ && (not_approved_ || unanswered_)) begin_opening();
}

void SessionCapture::begin_opening() {
    next_try_.reset();
    unanswered_ = false;
    // What is left of a lost share must not be in the way of the new one.
    if (lost_) capture_->shutdown();
    const auto open_anew = [this](const std::function<bool()>& cancelled) {
        CaptureOpening::Result result;
        result.capture =
            make_capture(options_.capture, desktop_for(options_, cancelled), width_, height_,
                         cancelled, [this](bool awaiting) { await_owner(awaiting); });
        result.works = result.capture->init();
        return result;
    };
    opening_ = std::make_unique<CaptureOpening>(open_anew, cancelled_);
}

void SessionCapture::finish_opening(SteadyClock::time_point now) {
    CaptureOpening::Result result = opening_->take();
    opening_.reset();
    if (result.works) {
        if (not_approved_) OX_INFO("Session: the screen is shared now");
        capture_ = std::move(result.capture);
        not_approved_ = false;
        failures_ = 0;
        tui::board().clear(tui::Alert::CaptureFailed);
        return;
    }
    const CaptureState why = result.capture ? result.capture->state() : CaptureState::Gone;
    if (not_approved_) {
        if (why == CaptureState::OwnerDeclined)
            tui::board().raise_capture(CaptureTrouble::Declined);
        return;  // the substitute stays
    }
    if (result.capture) capture_ = std::move(result.capture);
    if (why == CaptureState::Gone) next_try_ = now + pause_after(++failures_);
    unanswered_ = why == CaptureState::OwnerAbsent;
    if (unanswered_) tui::board().raise_capture(CaptureTrouble::Unanswered);
}

void SessionCapture::watch_for_black() {
    if (ended_) return;
    if (std::exchange(black_, !lost_ && capture_->black()) == black_) return;
    if (black_) {
        tui::board().raise_capture(CaptureTrouble::Black);
    } else if (!not_approved_) {
        tui::board().clear(tui::Alert::CaptureFailed);
    }
}

/// On the session's thread or the opening's.
void SessionCapture::await_owner(bool awaiting) {
    awaiting_owner_ = awaiting;
    if (awaiting) withhold_input_(true);
}

/// Brings input and board in line with what is known.
void SessionCapture::settle() {
    const bool awaiting = awaiting_owner_;
    show(awaiting ? PictureState::AwaitingOwner : lost_ ? PictureState::Lost : PictureState::Fine);
    withhold_input_(awaiting || lost_ || doubtful_ || not_approved_ || ended_);
}

void SessionCapture::show(PictureState picture) {
    if (std::exchange(shown_, picture) != picture) session_board::picture(picture);
}

void SessionCapture::shutdown() {
    opening_.reset();
    if (black_ && !ended_) tui::board().clear(tui::Alert::CaptureFailed);
    if (capture_) capture_->shutdown();
}

}  // namespace ox
