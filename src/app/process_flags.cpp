#include "app/process_flags.h"

#include <csignal>

#include "tui/board/board.h"

namespace ox {
namespace {

void set_disposition(int signal, void (*disposition)(int)) {
    struct sigaction action {};
    action.sa_handler = disposition;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

}  // namespace

std::atomic<int> g_last_signal{0};

std::atomic<bool>& shutdown_flag() {
    static std::atomic<bool> flag{false};
    return flag;
}

std::atomic<bool>& panic_flag() {
    static std::atomic<bool> flag{false};
    return flag;
}

void on_sigint(int signal) {
    g_last_signal.exchange(signal);
    shutdown_flag().exchange(true);
    tui::board().quit.exchange(true);
}

void on_sigusr1(int /*signal*/) {
    panic_flag().exchange(true);
}

void install_signal_handler(int signal, void (*handler)(int)) {
    // These are constructed on first use, which must not be in a signal handler.
    shutdown_flag();
    panic_flag();
    tui::board();
    set_disposition(signal, handler);
    // The parent's signal mask is inherited.
    sigset_t handled;
    ::sigemptyset(&handled);
    ::sigaddset(&handled, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);
}

bool is_ignored(int signal) {
    struct sigaction action {};
    ::sigaction(signal, nullptr, &action);
    return (action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN;  // NOLINT
}

void ignore_sigpipe() {
    set_disposition(SIGPIPE, SIG_IGN);  // NOLINT: the macro casts
}

void reset_sigchld() {
    set_disposition(SIGCHLD, SIG_DFL);
}

}  // namespace ox
