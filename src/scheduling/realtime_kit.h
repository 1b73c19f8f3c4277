#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "base/clock.h"
#include "dbus/bus_connection.h"

namespace ox {

/// The system service that grants desktop users priorities (org.freedesktop.RealtimeKit1; its
/// README). One thread: all calls together take at most five seconds (the bus may have to start
/// services), and end within 50 ms once `cancelled` is true.
class RealtimeKit {
  public:
    explicit RealtimeKit(BusConnection::Cancelled cancelled);

    // Both act on a thread of this process, but not on what it starts. False when there is no
    // service or it refuses.

    /// Sets the hard RLIMIT_RTTIME that the service demands: `thread` must have a RealTimeLimit.
    bool make_real_time(pid_t thread, int priority);
    bool raise(pid_t thread, int nice);

    /// Why the last call returned false.
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    [[nodiscard]] std::chrono::milliseconds time_left() const;
    bool connect();
    std::optional<int64_t> property(const char* name);
    DBusMessagePtr call(DBusMessage& message);
    bool request(const char* method, pid_t thread, int argument_type, const void* argument);

    SteadyClock::time_point deadline_;
    BusConnection bus_;
    std::string error_;
};

}  // namespace ox
