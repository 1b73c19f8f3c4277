#include "app/standalone_loop.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include "app/board_reports.h"
#include "app/host_checks.h"
#include "app/process_flags.h"
#include "app/session/run_session.h"
#include "base/clock.h"
#include "base/sleep.h"
#include "control/tcp_socket.h"
#include "log/log.h"
#include "tui/board/board.h"

namespace ox {
namespace {

/// Waits until the control port can be opened. A port in use is not logged again: it may be for
/// hours. Any other error is, since nobody may ever fix it otherwise.
void wait_for_port(uint16_t port) {
    constexpr std::chrono::milliseconds kPause{250};
    constexpr std::chrono::minutes kReminderPeriod{1};
    // Another agent releases the port for a moment between two of its sessions.
    constexpr int kChecksAfterBusy = 3;
    int checks_left = 1;
    auto next_reminder = SteadyClock::now() + kReminderPeriod;
    while (checks_left > 0) {
        const auto next_check = SteadyClock::now() + kPause;
        if (!sleep_until_or(next_check, [] { return shutdown_flag().load(); })) return;
        const int error = tcp_port_error(port);
        checks_left = error == 0 ? checks_left - 1 : kChecksAfterBusy;
        if (error == 0 || error == EADDRINUSE || next_check < next_reminder) continue;
        next_reminder = next_check + kReminderPeriod;
        OX_WARN("Session: control port %u still cannot be opened (%s) — nobody can connect",
                unsigned{port}, std::strerror(error));
    }
}

}  // namespace

void run_standalone(const Options& options, DesktopNotice& desktop, IdleWatch& idle) {
    report_standalone_mode();
    while (!shutdown_flag()) {
        idle.check();
        report_own_address(own_ip_address(), static_cast<uint16_t>(options.port_base));
        desktop.check([] { return shutdown_flag().load(); });
        if (shutdown_flag()) break;
        std::atomic<unsigned> streamed_seconds{0};
        const SessionEnd end =
            run_session(options, {.expected_token_sha256 = options.token_sha256}, streamed_seconds);
        OX_INFO("Standalone session ended: %s", to_string(end).c_str());
        tui::board().session_ended(false, streamed_seconds);
        if (shutdown_flag()) break;
        if (end.handshake == HandshakeFailure::cannot_listen) {
            wait_for_port(session_port(options, SessionPort::control));
        }
        if (shutdown_flag()) break;
        OX_INFO("Listening for next launcher...");
    }
    OX_INFO("orvex-agent stopped (signal=%d)", g_last_signal.load());
}

}  // namespace ox
