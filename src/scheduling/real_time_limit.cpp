#include "scheduling/real_time_limit.h"

#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>

#include "scheduling/kernel_priority.h"

namespace ox {
namespace {

constexpr rlim_t kLongestRunUs = 100'000;

// Input and sound, and room for more; a thread that finds none is not looked after.
std::array<std::atomic<pid_t>, 8> limited{};

void replace(pid_t from, pid_t to) {
    for (std::atomic<pid_t>& entry : limited) {
        pid_t expected = from;
        if (entry.compare_exchange_strong(expected, to)) return;
    }
}

bool set_limits(rlim_t hard_us) {
    rlimit limits{};
    if (::getrlimit(RLIMIT_RTTIME, &limits) != 0) return false;
    limits.rlim_max = std::min(limits.rlim_max, hard_us);
    limits.rlim_cur = std::min({limits.rlim_cur, kLongestRunUs, limits.rlim_max / 2});
    return ::setrlimit(RLIMIT_RTTIME, &limits) == 0;
}

void make_ordinary(pid_t thread) {
    const sched_param parameters{.sched_priority = 0};
    // Without the flag it would be refused.
    if (thread > 0) ::sched_setscheduler(thread, SCHED_OTHER | SCHED_RESET_ON_FORK, &parameters);
}

/// Only system calls from here on.
void on_limit(int /*signal*/) {
    const int saved_errno = errno;
    // The kernel sends the signal to the thread itself, but a thread that looks for signals at
    // that moment may snatch it; then it could be any of them.
    const pid_t self = own_thread_id();
    const bool is_own = std::find(limited.begin(), limited.end(), self) != limited.end();
    for (const std::atomic<pid_t>& thread : limited)
        if (!is_own || thread == self) make_ordinary(thread);
    // The kernel has put the soft limit a second up, above the hard one.
    set_limits(RLIM_INFINITY);
    errno = saved_errno;
}

void install_handler() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_handler = on_limit;
        action.sa_flags = SA_RESTART;
        ::sigemptyset(&action.sa_mask);
        ::sigaction(SIGXCPU, &action, nullptr);
        set_limits(RLIM_INFINITY);
    });
}

/// A mask is inherited, from a parent too: a signal that nobody takes would end at the hard limit.
void unblock_signal() {
    sigset_t signal;
    ::sigemptyset(&signal);
    ::sigaddset(&signal, SIGXCPU);
    ::pthread_sigmask(SIG_UNBLOCK, &signal, nullptr);
}

}  // namespace

RealTimeLimit::RealTimeLimit(pid_t thread) : thread_(thread) {
    replace(0, thread_);
    install_handler();
    unblock_signal();
}

RealTimeLimit::~RealTimeLimit() {
    replace(thread_, 0);
}

bool RealTimeLimit::kill_after(std::chrono::microseconds longest) {
    return longest.count() > 0 && set_limits(static_cast<rlim_t>(longest.count()));
}

}  // namespace ox
