#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "dbus/dbus_handles.h"

namespace ox {

enum class BusWait {
    Done,  ///< the expected message arrived
    TimedOut,
    Cancelled,
    Lost,  ///< the connection broke
};

/// A private connection to a bus. One thread. Every wait has a limit, also on a bus that does not
/// respond, and ends within 50 ms once `cancelled` is true.
class BusConnection {
  public:
    using Cancelled = std::function<bool()>;

    /// `cancelled` may be empty.
    explicit BusConnection(Cancelled cancelled) : cancelled_(std::move(cancelled)) {}

    /// Connects to the bus at `address` and registers there. False, with the reason in `error`,
    /// when that fails, takes longer than `limit`, or the bus's listen queue is full.
    bool open(const std::string& address, std::chrono::milliseconds limit, std::string& error);
    void close() { connection_.reset(); }
    [[nodiscard]] bool is_open() const {
        return connection_ && dbus_connection_get_is_connected(connection_.get()) != FALSE;
    }

    /// Own name on an open bus (":1.42").
    [[nodiscard]] const char* unique_name() const {
        return dbus_bus_get_unique_name(connection_.get());
    }

    /// Queues a message; its reply will refer to `serial`. False when the connection is gone.
    bool send(DBusMessage& message, uint32_t& serial);
    /// Sends a message that needs no reply.
    void post(DBusMessage& message);
    /// Subscribes to signals, without waiting: the bus handles messages in order.
    void add_match(const char* rule);

    /// Passes every message that arrives to `done`, until it returns true.
    BusWait read_until(SteadyClock::time_point deadline,
                       const std::function<bool(DBusMessage&)>& done);
    /// Handles what has arrived, without waiting. False when the connection broke.
    bool read_pending(const std::function<void(DBusMessage&)>& handle);
    /// Sends `call` and waits for its reply, which may be an error. Null when none comes.
    DBusMessagePtr call(DBusMessage& call, std::chrono::milliseconds limit);

  private:
    bool say_hello(std::chrono::milliseconds limit, std::string& error);

    Cancelled cancelled_;
    DBusConnectionPtr connection_;
};

/// When no bus is known: libdbus may start one for the X display.
inline constexpr const char* kAutolaunch = "autolaunch:";

/// dbus-launch(1), "AUTOMATIC LAUNCHING"; also for a process outside of the user's sessions.
std::string session_bus_address();
std::string system_bus_address();

/// The descriptor in a method return, close-on-exec; none in any other message.
UniqueFd descriptor_in(DBusMessage& reply);

}  // namespace ox
