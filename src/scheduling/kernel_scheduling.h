#pragma once

#include <sys/types.h>

#include <chrono>
#include <vector>

// Thread priorities as the kernel grants them (sched(7), setpriority(2), setrlimit(2)).

namespace ox {

/// Low among the real-time priorities: sound servers and drivers go first.
constexpr int kRealTimePriority = 5;
/// Nice value of raised threads: they get about nine tenths of a core that they share with one
/// ordinary thread.
constexpr int kRaisedNice = -11;

/// The kernel's id of the calling thread (gettid(2)).
pid_t own_thread_id() noexcept;
/// The ids of this process's threads.
std::vector<pid_t> threads_of_process();

/// Makes the calling thread real-time, but not what it starts. False when the kernel refuses.
bool become_real_time() noexcept;
/// Gives `thread`, one of this process, `kRaisedNice`. False when the kernel refuses.
bool raise_thread(pid_t thread) noexcept;
/// From now on the calling thread starts only ordinary threads and children, whatever it is itself
/// (SCHED_RESET_ON_FORK). Cannot be undone. False, with no effect, for a thread with another
/// scheduling policy than the ordinary one.
bool start_ordinary_threads_only() noexcept;

/// Guards against a runaway real-time thread: one that runs for 100 ms without waiting once becomes
/// an ordinary thread (soft limit RLIMIT_RTTIME, SIGXCPU), long before the hard limit, at which the
/// kernel kills the process. The agent's real-time threads wait after each datagram or a few
/// milliseconds of sound; one that does not is being flooded or is stuck in a loop. Limit and
/// signal handler belong to the process and stay. Created and destroyed by any thread, while
/// `thread` lives.
class RealTimeLimit {
  public:
    /// Limits `thread`, which is real-time or about to be. Unblocks the signal in the calling
    /// thread.
    explicit RealTimeLimit(pid_t thread);
    ~RealTimeLimit();
    RealTimeLimit(const RealTimeLimit&) = delete;
    RealTimeLimit& operator=(const RealTimeLimit&) = delete;

    /// Lowers the hard limit of the process and its future children to `longest`; an ordinary
    /// process cannot raise it again.
    static bool kill_after(std::chrono::microseconds longest);

  private:
    pid_t thread_;
};

}  // namespace ox
