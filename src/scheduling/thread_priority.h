#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "scheduling/kernel_scheduling.h"

// Both classes ask the kernel, then RealtimeKit, on a helper thread since the bus may hang:
// constructors return at once, destructors within 100 ms. Debug lines report the outcome.

namespace ox {

/// Makes the constructing thread real-time, for threads that mostly wait; construct and destroy in
/// its function. Threads that it starts are ordinary. Where refused, a lower nice value is tried.
class RealTimePriority {
  public:
    /// `who` prefixes the log line.
    explicit RealTimePriority(const char* who);
    ~RealTimePriority() = default;
    RealTimePriority(const RealTimePriority&) = delete;
    RealTimePriority& operator=(const RealTimePriority&) = delete;

  private:
    void ask_realtime_kit(const std::stop_token& stop, bool raised) const;

    const char* who_;
    pid_t thread_;
    RealTimeLimit limit_;
    std::jthread helper_;
};

/// Lowers the nice value of a thread that is busy for much of each frame's time, and of its
/// workers: they go first on cores that a game shares, but starve nobody. Used by that thread. New
/// threads and children, such as the recorder, stay ordinary; RealtimeKit is asked for each worker.
class RaisedThreads {
  public:
    /// `who` prefixes the log lines.
    explicit RaisedThreads(const char* who) : who_(who) {}
    /// Restores the owner's nice value.
    ~RaisedThreads();
    RaisedThreads(const RaisedThreads&) = delete;
    RaisedThreads& operator=(const RaisedThreads&) = delete;

    /// Raises the calling thread and the process's threads that are not in `before`. Never blocks.
    void raise_since(const std::vector<pid_t>& before);

  private:
    void ask_realtime_kit(const std::vector<pid_t>& threads);
    void serve(const std::stop_token& stop);

    const char* who_;
    std::optional<int> original_nice_;  ///< of the owner
    Mutex mutex_;
    std::condition_variable_any wake_;
    std::vector<pid_t> queue_ OX_GUARDED_BY(mutex_);  ///< to ask RealtimeKit for
    std::jthread helper_;
};

}  // namespace ox
