#include "app/session/session_capture.h"

#include <algorithm>
#include <utility>

#include "app/board_reports.h"
#include "app/session/capture_selection.h"
#include "base/thread.h"
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

CaptureOpening::CaptureOpening(Open open, Cancelled cancelled) {
    // The capture may call this after the end of this object.
    auto ended = [abandoned = abandoned_, also = std::move(cancelled)] {
        return abandoned->load() || also();
    };
    thread_ = start_thread(
        [this, open = std::move(open), ended = std::move(ended)] {
            result_ = open(ended);
            done_ = true;
        },
        [this](const char* why) {
            OX_ERROR("Session: cannot open the capture anew: %s", why);
            done_ = true;
        });
}

CaptureOpening::~CaptureOpening() {
    if (!done_) *abandoned_ = true;  // else a capture that was taken would end with this object
    if (thread_.joinable()) thread_.join();
}

std::optional<CaptureOpening::Result> CaptureOpening::take_result() {
    if (!done_) return std::nullopt;
    if (thread_.joinable()) thread_.join();
    return std::move(result_);
}

SessionCapture::SessionCapture(const Options& options, std::function<void(bool)> withhold_input)
    : options_(options), withhold_input_(std::move(withhold_input)) {}

CaptureRequest SessionCapture::request(const std::function<bool()>& cancelled) const {
    return {.backend = options_.capture,
            .desktop = desktop_for(options_, cancelled),
            .synthetic_width = width_,
            .synthetic_height = height_,
            .cancelled = cancelled};
}

bool SessionCapture::open(uint32_t width, uint32_t height, const std::function<bool()>& cancelled) {
    width_ = width;
    height_ = height;
    cancelled_ = cancelled;
    CaptureRequest wanted = request(cancelled);
    wanted.on_awaiting_owner = [this](bool awaiting) {
        set_awaiting_owner(awaiting);
        show(awaiting ? PictureState::AwaitingOwner : PictureState::Fine);
    };
    // A player who sees nothing could answer the desktop's question in the owner's place.
    withhold_input_(uses_portal(wanted));
    SelectedCapture selected = select_capture(wanted);
    capture_ = std::move(selected.capture);
    not_approved_ = selected.not_approved;
    if (capture_) update_input_and_board();
    return capture_ != nullptr;
}

bool SessionCapture::look_after(SteadyClock::time_point now) {
    if (opening_) {
        if (auto result = opening_->take_result()) {
            opening_.reset();
            finish_opening(std::move(*result), now);
        }
    }
    if (!ended_ && !opening_) handle_state(capture_->state(), now);
    if (next_try_ && now >= *next_try_) begin_opening();
    check_for_black();
    update_input_and_board();
    return !ended_;
}

void SessionCapture::handle_state(CaptureState state, SteadyClock::time_point now) {
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
            handle_owner_end(CaptureTrouble::Stopped);
            return;
        case CaptureState::OwnerDeclined:
            handle_owner_end(CaptureTrouble::Declined);
            return;
    }
    if (lost_ && !was_lost) {
        OX_WARN("Session: the source of the pictures is gone — input is withheld until it is back");
    } else if (was_lost && !lost_) {
        OX_INFO("Session: pictures come again — input is let through");
    }
}

void SessionCapture::handle_owner_end(CaptureTrouble trouble) {
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
    // The rest of a lost share must not block the new one.
    if (lost_) capture_->shutdown();
    const auto reopen = [this](const std::function<bool()>& cancelled) {
        CaptureRequest wanted = request(cancelled);
        wanted.on_awaiting_owner = [this](bool awaiting) { set_awaiting_owner(awaiting); };
        CaptureOpening::Result result{.capture = make_capture(wanted)};
        result.works = result.capture->init();
        return result;
    };
    opening_ = std::make_unique<CaptureOpening>(reopen, cancelled_);
}

void SessionCapture::finish_opening(CaptureOpening::Result result, SteadyClock::time_point now) {
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
        return;  // the fallback stays
    }
    if (result.capture) capture_ = std::move(result.capture);
    if (why == CaptureState::Gone) next_try_ = now + pause_after(++failures_);
    unanswered_ = why == CaptureState::OwnerAbsent;
    if (unanswered_) tui::board().raise_capture(CaptureTrouble::Unanswered);
}

void SessionCapture::check_for_black() {
    if (ended_) return;
    if (std::exchange(black_, !lost_ && capture_->is_black()) == black_) return;
    if (black_) {
        tui::board().raise_capture(CaptureTrouble::Black);
    } else if (!not_approved_) {
        tui::board().clear(tui::Alert::CaptureFailed);
    }
}

/// On the session's thread or the opening's.
void SessionCapture::set_awaiting_owner(bool awaiting) {
    awaiting_owner_ = awaiting;
    if (awaiting) withhold_input_(true);
}

void SessionCapture::update_input_and_board() {
    const bool awaiting = awaiting_owner_;
    show(awaiting ? PictureState::AwaitingOwner : lost_ ? PictureState::Lost : PictureState::Fine);
    withhold_input_(awaiting || lost_ || doubtful_ || not_approved_ || ended_);
}

void SessionCapture::show(PictureState picture) {
    if (std::exchange(shown_, picture) != picture) report_picture(picture);
}

void SessionCapture::shutdown() {
    opening_.reset();
    if (black_ && !ended_) tui::board().clear(tui::Alert::CaptureFailed);
    if (capture_) capture_->shutdown();
}

}  // namespace ox
