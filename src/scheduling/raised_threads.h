#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>
#include <vector>

namespace ox {

/// Gives a thread that is busy for much of each frame's time, and the workers that a library has
/// started for it, a smaller nice value: on cores that a game keeps busy as well they go first, but
/// nobody is shut out. Owned and used by the one thread that it raises.
///
/// The kernel is asked first, then RealtimeKit, on a thread of its own, since the system bus may
/// take its time or hang. The workers are asked for one by one: what RealtimeKit has raised hands
/// nothing on to the threads that it starts. So neither do threads raised here, and children such
/// as the recorder stay ordinary.
class RaisedThreads {
  public:
    /// `who` stands in front of the log lines.
    explicit RaisedThreads(const char* who) : who_(who) {}
    /// The owner is as nice as it was before. Returns within 100 ms.
    ~RaisedThreads();
    RaisedThreads(const RaisedThreads&) = delete;
    RaisedThreads& operator=(const RaisedThreads&) = delete;

    /// Raises the calling thread and those threads of the process that were not there `before`.
    /// Never waits; one debug line tells the outcome.
    void raise_since(const std::vector<pid_t>& before);

  private:
    void ask_realtime_kit(const std::vector<pid_t>& threads);
    void serve(const std::stop_token& stop);

    const char* who_;
    std::optional<int> ordinary_nice_;  ///< of the owner, once it has been asked for
    std::mutex mutex_;
    std::condition_variable_any wake_;
    std::vector<pid_t> asked_for_;  ///< what the helper is to ask for; guarded by mutex_
    std::jthread helper_;
};

}  // namespace ox
