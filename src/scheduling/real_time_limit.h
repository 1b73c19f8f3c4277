#pragma once

#include <sys/types.h>

#include <chrono>

namespace ox {

/// Keeps a real-time thread from taking a core for itself, and the kernel from ending the process
/// for that: a thread that runs for 100 ms without once waiting becomes an ordinary one (soft limit
/// RLIMIT_RTTIME of setrlimit(2), SIGXCPU), long before the hard limit, at which the kernel kills.
/// The agent's real-time threads wait for a datagram or a few milliseconds of sound after each
/// little work; one that does not is being flooded from outside or has gone astray. Limit and
/// signal handler are the process's and stay when the last thread is gone. Created and destroyed by
/// any thread, while `thread` lives.
class RealTimeLimit {
  public:
    /// Puts `thread`, which is real-time or about to be, under the limit. The calling thread takes
    /// the signal from now on, also where it inherited it blocked.
    explicit RealTimeLimit(pid_t thread);
    ~RealTimeLimit();
    RealTimeLimit(const RealTimeLimit&) = delete;
    RealTimeLimit& operator=(const RealTimeLimit&) = delete;

    /// Lowers the process's hard limit to `longest`, which also its children inherit; an ordinary
    /// process cannot raise it again.
    static bool kill_after(std::chrono::microseconds longest);

  private:
    pid_t thread_;
};

}  // namespace ox
