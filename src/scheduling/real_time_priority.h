#pragma once

#include <optional>
#include <stop_token>
#include <thread>

#include "scheduling/real_time_limit.h"

namespace ox {

/// Makes the thread that constructs it run as soon as it has something to do, although a game or
/// an encoder keeps every core busy. For threads that wait most of the time and do little at once;
/// constructed at the begin of the thread's function and destroyed at its end. What the thread
/// starts is ordinary.
///
/// The kernel is asked first. Where it refuses, as it does to most users, RealtimeKit is asked on a
/// thread of its own, since the system bus may take its time or hang: the constructor returns at
/// once, the destructor within 100 ms. Where neither grants it, a smaller nice value is tried in
/// the same way, and then the thread stays as it is. One debug line tells.
class RealTimePriority {
  public:
    /// `who` stands in front of the log line.
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

}  // namespace ox
