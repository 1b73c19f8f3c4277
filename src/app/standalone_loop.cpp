#include "app/standalone_loop.h"

#include <atomic>
#include <string>

#include "app/desktop_notice.h"
#include "app/process_flags.h"
#include "app/session/session.h"
#include "base/clock.h"
#include "base/sleep.h"
#include "control/port_check.h"
#include "log/log.h"
#include "tui/board.h"

namespace ox {
namespace {

/// Waits until a port that could not be had is free, quietly: the log says already that it is
/// taken.
void wait_for_port(uint16_t port) {
    constexpr std::chrono::milliseconds kPause{250};
    // Another agent lets go of it for a moment between two of its sessions.
    constexpr int kLooksAfterBusy = 3;
    int looks_left = 1;
    while (looks_left > 0) {
        const auto next_look = SteadyClock::now() + kPause;
        if (!sleep_until_or(next_look, [] { return shutdown_flag().load(); })) return;
        looks_left = tcp_port_is_free(port) ? looks_left - 1 : kLooksAfterBusy;
    }
}

}  // namespace

void run_standalone(const Options& options, DesktopNotice& desktop) {
    tui::board().update([](tui::Snapshot& state) {
        if (state.link != tui::LinkState::Standalone) {
            state.link = tui::LinkState::Standalone;
            state.link_since_s = system_now_s();
        }
        state.link_detail = 0;
    });
    while (!shutdown_flag()) {
        desktop.look([] { return shutdown_flag().load(); });
        if (shutdown_flag()) break;
        std::atomic<unsigned> streamed_seconds{0};
        const std::string reason =
            run_session(options, {.expected_token_sha256 = options.token_sha256}, streamed_seconds);
        OX_INFO("Standalone session ended: %s", reason.c_str());
        tui::board().session_ended(false, streamed_seconds);
        if (shutdown_flag()) break;
        if (ended_before_listening(reason)) wait_for_port(session_control_port(options));
        if (shutdown_flag()) break;
        OX_INFO("Listening for next launcher...");
    }
    OX_INFO("orvex-agent stopped (signal=%d)", g_last_signal.load());
}

}  // namespace ox
