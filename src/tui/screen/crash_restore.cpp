#include "tui/screen/crash_restore.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>

namespace ox::tui::crash_restore {
namespace {

// Returning from the handler repeats the instruction that caused these.
constexpr std::array kFaults{SIGSEGV, SIGBUS, SIGFPE, SIGILL};
// Raised by the process itself, or after errors that it cannot continue from.
constexpr std::array kAborts{SIGABRT, SIGTRAP, SIGSYS};
// End the process unless they have a handler.
constexpr std::array kRequests{SIGHUP,    SIGINT,  SIGQUIT,   SIGTERM, SIGPIPE,
                               SIGALRM,   SIGUSR1, SIGUSR2,   SIGXCPU, SIGXFSZ,
                               SIGVTALRM, SIGPROF, SIGSTKFLT, SIGPOLL, SIGPWR};

struct Record {
    int fd = -1;
    std::string_view bytes;
    std::optional<termios> modes;
    std::array<struct sigaction, NSIG> before{};
};

// Written while no handler of ours is installed, read by the handlers.
Record& record() {
    static Record instance;
    return instance;
}

std::atomic<bool> is_armed{false};

template <typename Set>
bool contains(const Set& set, int number) {
    for (const int member : set) {
        if (member == number) return true;
    }
    return false;
}

// Only async-signal-safe calls.
void restore_terminal() {
    if (!is_armed.exchange(false)) return;
    const Record& to = record();
    std::string_view left = to.bytes;
    while (!left.empty()) {
        const ssize_t written = ::write(to.fd, left.data(), left.size());
        if (written <= 0) break;
        left.remove_prefix(static_cast<size_t>(written));
    }
    if (to.modes) ::tcsetattr(to.fd, TCSANOW, &*to.modes);
}

void on_fatal_signal(int number, siginfo_t* info, void* /*context*/) {
    const int saved_errno = errno;
    restore_terminal();
    ::sigaction(number, &record().before.at(static_cast<size_t>(number)), nullptr);
    // A real fault recurs by itself, with its details for a debugger; anything else is raised again
    // and delivered when this handler returns.
    const bool real_fault = info != nullptr && info->si_code > 0 && contains(kFaults, number);
    if (!real_fault) ::raise(number);
    errno = saved_errno;
}

bool is_ours(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == on_fatal_signal;
}

void install(int number, bool replace_handlers) {
    struct sigaction& before = record().before.at(static_cast<size_t>(number));
    if (::sigaction(number, nullptr, &before) != 0) return;
    const bool is_default =
        (before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler == SIG_DFL;  // NOLINT
    const bool is_ignored =
        (before.sa_flags & SA_SIGINFO) == 0 && before.sa_handler == SIG_IGN;  // NOLINT
    if (!is_default && (is_ignored || !replace_handlers)) return;
    struct sigaction action {};
    action.sa_sigaction = on_fatal_signal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigfillset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

void uninstall(int number) {
    struct sigaction now {};
    if (::sigaction(number, nullptr, &now) != 0 || !is_ours(now)) return;
    ::sigaction(number, &record().before.at(static_cast<size_t>(number)), nullptr);
}

// After a stack overflow a handler needs a stack of its own.
void use_own_handler_stack() {
    static std::array<std::byte, 65'536> memory;
    stack_t present{};
    if (::sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0) return;
    const stack_t stack{.ss_sp = memory.data(), .ss_flags = 0, .ss_size = memory.size()};
    ::sigaltstack(&stack, nullptr);
}

}  // namespace

void arm(int fd, std::string_view bytes, const std::optional<termios>& modes) {
    record().fd = fd;
    record().bytes = bytes;
    record().modes = modes;
    is_armed = true;
    use_own_handler_stack();
    for (const int number : kFaults)
        install(number, true);
    for (const int number : kAborts)
        install(number, true);
    for (const int number : kRequests)
        install(number, false);
}

bool disarm() {
    const bool was_armed = is_armed.exchange(false);
    for (const int number : kFaults)
        uninstall(number);
    for (const int number : kAborts)
        uninstall(number);
    for (const int number : kRequests)
        uninstall(number);
    return was_armed;
}

bool armed() {
    return is_armed;
}

}  // namespace ox::tui::crash_restore
