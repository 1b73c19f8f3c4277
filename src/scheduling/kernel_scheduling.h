#pragma once

#include <sys/types.h>

#include <chrono>
#include <vector>

// Thread priorities as the kernel grants them (sched(7), setpriority(2), setrlimit(2)).

namespace ox {

/// Low among the real-time priorities: sound servers and drivers go first.
constexpr int kRealTimePriority = 5;
/// Raised threads get about nine tenths of a core shared with one ordinary thread.
constexpr int kRaisedNice = -11;

pid_t own_thread_id() noexcept;
std::vector<pid_t> threads_of_process();

/// Makes the calling thread real-time, but not what it starts. False when the kernel refuses.
bool become_real_time() noexcept;
/// Gives `thread`, one of this process, `kRaisedNice`. False when the kernel refuses.
bool raise_thread(pid_t thread) noexcept;
/// Makes the calling thread start only ordinary threads and children, for good
/// (SCHED_RESET_ON_FORK). False, with no effect, unless its own policy is the ordinary one.
bool start_ordinary_threads_only() noexcept;

/// Guards against a runaway real-time thread: after 100 ms without waiting once it becomes ordinary
/// (soft limit RLIMIT_RTTIME, SIGXCPU), long before the hard limit, at which the kernel kills the
/// process. Limit and handler belong to the process and stay. Any thread, while `thread` lives.
class RealTimeLimit {
  public:
    /// `thread` is or will be real-time. Unblocks the signal in the calling thread.
    explicit RealTimeLimit(pid_t thread);
    ~RealTimeLimit();
    RealTimeLimit(const RealTimeLimit&) = delete;
    RealTimeLimit& operator=(const RealTimeLimit&) = delete;

    /// Lowers the hard limit, also for future children; an ordinary process cannot raise it again.
    static bool kill_after(std::chrono::microseconds longest);

  private:
    pid_t thread_;
};

}  // namespace ox
