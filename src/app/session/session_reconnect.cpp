// What a session does when its launcher is gone.
#include <algorithm>

#include "app/board_reports.h"
#include "app/session/session.h"
#include "base/sleep.h"
#include "log/log.h"

namespace ox {
namespace {

/// Pause before the control port is tried again when it could not be opened.
constexpr std::chrono::seconds kListenRetry{1};
/// A wait for a launcher may end this much before its deadline; too little for another one, which
/// would take at least a second.
constexpr std::chrono::milliseconds kEarlyEnd{10};

/// Whole seconds until `deadline`, rounded up, at least 1.
int remaining_seconds(SteadyClock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::seconds>(deadline - SteadyClock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 1));
}

}  // namespace

Session::MaybeEnd Session::hold_for_launcher() {
    const auto grace = static_cast<int>(options_.reconnect_grace_s);
    OX_INFO("Session: launcher lost — holding the session for up to %ds", grace);
    report_launcher_lost(options_.reconnect_grace_s);
    control_.close();
    audio_.pause();
    if (wait_for_reconnect()) return resume_with_new_keys();
    if (requested_end()) return std::nullopt;
    if (!capture_.look_after(SteadyClock::now())) return EndReason::capture_failed;
    OX_WARN("Session: no reconnect within %ds — ending", grace);
    return EndReason::disconnect_timeout;
}

bool Session::wait_for_reconnect() {
    // A stranger or a refused token does not end the hold. A launcher that connects before the
    // deadline has the usual time for its auth line.
    const auto deadline = SteadyClock::now() + std::chrono::seconds(options_.reconnect_grace_s);
    const auto abort = [this] {
        return requested_end() || !capture_.look_after(SteadyClock::now());
    };
    while (!abort() && SteadyClock::now() + kEarlyEnd < deadline) {
        if (control_.accept_and_handshake(port(SessionPort::control), abort,
                                          remaining_seconds(deadline))) {
            return true;
        }
        if (control_.failure == HandshakeFailure::cannot_listen) {
            sleep_until_or(std::min(deadline, SteadyClock::now() + kListenRetry), abort);
        }
    }
    return false;
}

Session::MaybeEnd Session::resume_with_new_keys() {
    if (!video_.set_key(control_.keys.video_key)) {
        OX_ERROR("Session: cannot install new video key after reconnect");
        return EndReason::reconnect_key_error;
    }
    audio_.resume(control_.keys.audio_key);
    input_.stop();
    start_input();
    capture_.launcher_returned();
    control_.start_async_read();
    feedback_.keyframes().force_now();
    pacer_.reset(SteadyClock::now());
    OX_INFO("Session: launcher reconnected — resuming with an IDR");
    report_launcher(request_.session_id, launcher_);
    report_launcher_back();
    return std::nullopt;
}

}  // namespace ox
