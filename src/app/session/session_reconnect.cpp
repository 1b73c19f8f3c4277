// What a session does when its launcher is gone.
#include <algorithm>

#include "app/session/session.h"
#include "app/session/session_board.h"
#include "base/sleep.h"
#include "log/log.h"

namespace ox {
namespace {

/// Pause before the control port is tried again when it could not be had.
constexpr std::chrono::seconds kListenRetry{1};
/// More than what a wait for a launcher ends before its deadline.
constexpr std::chrono::milliseconds kEarlyEnd{10};

/// Whole seconds until `deadline`, rounded up, at least 1.
int remaining_seconds(SteadyClock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - SteadyClock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 1));
}

}  // namespace

std::string Session::hold_for_launcher() {
    const auto grace = static_cast<int>(options_.reconnect_grace_s);
    OX_INFO("Session: launcher lost — holding the session for up to %ds", grace);
    session_board::holding(options_.reconnect_grace_s);
    control_.close();
    audio_.pause();
    // A launcher may send its only probe as soon as it has its keys.
    control_.before_ready = [this] { expect_media_probes(); };
    const bool is_back = wait_for_reconnect();
    control_.before_ready = nullptr;
    if (!is_back) {
        if (leave_requested()) return {};
        if (!capture_.look_after(SteadyClock::now())) return "capture_failed";
        OX_WARN("Session: no reconnect within %ds — ending", grace);
        return "disconnect_timeout";
    }
    return resume_with_new_keys();
}

bool Session::wait_for_reconnect() {
    // Only the deadline ends the hold: a stranger or a refused token costs its own time. Whoever
    // connects before it has as long for the auth line as at any other time.
    const auto deadline = SteadyClock::now() + std::chrono::seconds(options_.reconnect_grace_s);
    const auto abort = [this] {
        return leave_requested() || !capture_.look_after(SteadyClock::now());
    };
    while (!abort() && SteadyClock::now() + kEarlyEnd < deadline) {
        if (control_.accept_and_handshake(control_port(), abort, remaining_seconds(deadline))) {
            return true;
        }
        if (control_.failure == HandshakeFailure::cannot_listen) {
            sleep_until_or(std::min(deadline, SteadyClock::now() + kListenRetry), abort);
        }
    }
    return false;
}

std::string Session::resume_with_new_keys() {
    if (!video_.set_key(control_.keys.video_key)) {
        OX_ERROR("Session: cannot install new video key after reconnect");
        return "reconnect_key_error";
    }
    audio_.resume(control_.keys.audio_key);
    input_.stop();
    start_input();
    capture_.launcher_returned();
    control_.start_async_read();
    encoder_.force_idr = true;
    pacer_.reset(SteadyClock::now());
    OX_INFO("Session: launcher reconnected — resuming with an IDR");
    session_board::launcher_authenticated(request_.session_id, launcher_);
    session_board::resumed();
    return {};
}

}  // namespace ox
