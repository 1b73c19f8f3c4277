#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "base/clock.h"
#include "dbus/bus_connection.h"

namespace ox {

/// Client of RealtimeKit, the system service that gives the programs of a desktop's user the
/// priorities that the kernel refuses them (org.freedesktop.RealtimeKit1; its README). Used by one
/// thread, for a short conversation: all calls together last no longer than five seconds, since
/// the bus may have to start the service and what grants it first, and end within 50 ms once
/// `cancelled` returns true.
class RealtimeKit {
  public:
    explicit RealtimeKit(BusConnection::Cancelled cancelled);

    /// Makes `thread`, one of this process, real-time. Sets the process's hard RLIMIT_RTTIME to
    /// what the service demands: the thread has to be under a RealTimeLimit. What it starts is
    /// ordinary. False when there is no service or it refuses.
    bool make_real_time(pid_t thread, int priority);

    /// Gives `thread`, one of this process, a lower nice value. What it starts is ordinary. False
    /// as above.
    bool raise(pid_t thread, int nice);

    /// Why the last call returned false.
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    [[nodiscard]] std::chrono::milliseconds time_left() const;
    bool connect();
    std::optional<int64_t> property(const char* name);
    DBusMessagePtr call(DBusMessage& message);
    bool order(const char* method, pid_t thread, int argument_type, const void* argument);

    SteadyClock::time_point deadline_;
    BusConnection bus_;
    std::string error_;
};

}  // namespace ox
