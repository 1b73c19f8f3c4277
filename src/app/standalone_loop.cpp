#include "app/standalone_loop.h"

#include <atomic>
#include <string>

#include "app/process_flags.h"
#include "app/session/session.h"
#include "base/clock.h"
#include "base/sleep.h"
#include "log/log.h"
#include "tui/board.h"

namespace ox {

void run_standalone(const Options& options) {
    constexpr std::chrono::seconds kRetryPause{1};
    tui::board().update([](tui::Snapshot& state) {
        if (state.link != tui::LinkState::Standalone) {
            state.link = tui::LinkState::Standalone;
            state.link_since_s = system_now_s();
        }
        state.link_detail = 0;
    });
    const SessionRequest request{.expected_token_sha256 = options.token_sha256};
    while (!shutdown_flag()) {
        std::atomic<unsigned> streamed_seconds{0};
        const std::string reason = run_session(options, request, streamed_seconds);
        OX_INFO("Standalone session ended: %s", reason.c_str());
        tui::board().session_ended(false, streamed_seconds);
        if (shutdown_flag()) break;
        if (ended_before_listening(reason)) {
            sleep_until_or(SteadyClock::now() + kRetryPause, [] { return shutdown_flag().load(); });
        }
        OX_INFO("Listening for next launcher...");
    }
    OX_INFO("orvex-agent stopped (signal=%d)", g_last_signal.load());
}

}  // namespace ox
