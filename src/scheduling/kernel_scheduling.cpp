#include "scheduling/kernel_scheduling.h"

#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <string>

namespace ox {

pid_t own_thread_id() noexcept {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

std::vector<pid_t> threads_of_process() {
    std::vector<pid_t> threads;
    std::error_code failure;
    std::filesystem::directory_iterator entry("/proc/self/task", failure);
    for (; !failure && entry != end(entry); entry.increment(failure)) {
        const std::string name = entry->path().filename();
        pid_t thread = 0;
        std::from_chars(name.data(), name.data() + name.size(), thread);
        if (thread > 0) threads.push_back(thread);
    }
    return threads;
}

bool become_real_time() noexcept {
    const sched_param parameters{.sched_priority = kRealTimePriority};
    return ::sched_setscheduler(0, SCHED_RR | SCHED_RESET_ON_FORK, &parameters) == 0;
}

bool raise_thread(pid_t thread) noexcept {
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(thread), kRaisedNice) == 0;
}

bool start_ordinary_threads_only() noexcept {
    const int policy = ::sched_getscheduler(0);
    if ((policy & ~SCHED_RESET_ON_FORK) != SCHED_OTHER) return false;
    const sched_param parameters{.sched_priority = 0};
    return ::sched_setscheduler(0, SCHED_OTHER | SCHED_RESET_ON_FORK, &parameters) == 0;
}

namespace {

constexpr rlim_t kLongestRunUs = 100'000;

// Input, sound and spare slots; a thread that finds none is not limited.
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
    // Without the flag the kernel refuses.
    if (thread > 0) ::sched_setscheduler(thread, SCHED_OTHER | SCHED_RESET_ON_FORK, &parameters);
}

// Async-signal-safe.
void on_limit(int /*signal*/) {
    const int saved_errno = errno;
    // The kernel signals the thread itself, but another thread that checks for signals at that
    // moment may receive it; then it could be about any of them.
    const pid_t self = own_thread_id();
    const bool is_own = std::find(limited.begin(), limited.end(), self) != limited.end();
    for (const std::atomic<pid_t>& thread : limited)
        if (!is_own || thread == self) make_ordinary(thread);
    // The kernel has raised the soft limit by a second, above the hard one.
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

// The mask may be inherited blocked, which would leave only the hard limit.
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
