#include "app/standalone_loop.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "app/desktop_notice.h"
#include "app/idle_watch.h"
#include "app/process_flags.h"
#include "app/session/run_session.h"
#include "base/clock.h"
#include "base/sleep.h"
#include "control/port_check.h"
#include "log/log.h"
#include "tui/board/board.h"

namespace ox {
namespace {

/// Waits until a port that could not be had is free. Says nothing of one that is taken: the log
/// does already, and it may be for hours. Whatever else is wrong with it nobody may ever mend.
void wait_for_port(uint16_t port) {
    constexpr std::chrono::milliseconds kPause{250};
    constexpr std::chrono::minutes kReminder{1};
    // Another agent lets go of it for a moment between two of its sessions.
    constexpr int kLooksAfterBusy = 3;
    int looks_left = 1;
    auto next_reminder = SteadyClock::now() + kReminder;
    while (looks_left > 0) {
        const auto next_look = SteadyClock::now() + kPause;
        if (!sleep_until_or(next_look, [] { return shutdown_flag().load(); })) return;
        const int error = tcp_port_error(port);
        looks_left = error == 0 ? looks_left - 1 : kLooksAfterBusy;
        if (error == 0 || error == EADDRINUSE || next_look < next_reminder) continue;
        next_reminder = next_look + kReminder;
        OX_WARN("Session: control port %u still cannot be opened (%s) — nobody can connect",
                unsigned{port}, std::strerror(error));
    }
}

}  // namespace

void run_standalone(const Options& options, DesktopNotice& desktop, IdleWatch& idle) {
    tui::board().update([](tui::Snapshot& state) {
        if (state.link != tui::LinkState::Standalone) {
            state.link = tui::LinkState::Standalone;
            state.link_since_s = system_now_s();
        }
        state.link_detail = 0;
    });
    while (!shutdown_flag()) {
        idle.look();
        desktop.look([] { return shutdown_flag().load(); });
        if (shutdown_flag()) break;
        std::atomic<unsigned> streamed_seconds{0};
        const SessionEnd end =
            run_session(options, {.expected_token_sha256 = options.token_sha256}, streamed_seconds);
        OX_INFO("Standalone session ended: %s", end.reason.c_str());
        tui::board().session_ended(false, streamed_seconds);
        if (shutdown_flag()) break;
        if (end.could_not_listen) wait_for_port(session_control_port(options));
        if (shutdown_flag()) break;
        OX_INFO("Listening for next launcher...");
    }
    OX_INFO("orvex-agent stopped (signal=%d)", g_last_signal.load());
}

}  // namespace ox
