#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "base/clock.h"
#include "base/unique_fd.h"
#include "dbus/dbus_handles.h"

namespace ox {

/// Why a wait on a bus ended.
enum class BusWait {
    Done,       ///< what was waited for came
    TimedOut,   ///< it did not come in time
    Cancelled,  ///< the owner wants it no more
    Lost,       ///< the connection broke
};

/// A private connection to a D-Bus message bus (D-Bus specification, "Message Bus"). Used by one
/// thread; every wait has a limit, ends within 50 ms once `cancelled` returns true, and survives a
/// bus that accepts connections and then says nothing.
class BusConnection {
  public:
    using Cancelled = std::function<bool()>;

    /// `cancelled` may be empty: then only the limits end a wait.
    explicit BusConnection(Cancelled cancelled) : cancelled_(std::move(cancelled)) {}

    /// Connects to the bus at `address` and registers there. False, with the reason in `error`,
    /// when that does not work within `limit`, or when too many wait for the bus already.
    bool open(const std::string& address, std::chrono::milliseconds limit, std::string& error);
    void close() { connection_.reset(); }
    [[nodiscard]] bool is_open() const {
        return connection_ && dbus_connection_get_is_connected(connection_.get()) != FALSE;
    }

    /// Own name on the bus (":1.42"). Only while it is open.
    [[nodiscard]] const char* unique_name() const {
        return dbus_bus_get_unique_name(connection_.get());
    }

    /// Queues a message; `serial` is the number that its reply will name. False when the
    /// connection is gone.
    bool send(DBusMessage& message, uint32_t& serial);
    /// Queues a message that needs no reply, and writes out what is queued.
    void post(DBusMessage& message);
    /// Subscribes to signals; not waited for, the bus deals with it before any later call.
    void add_match(const char* rule);

    /// Hands every message that comes to `done`, until it returns true.
    BusWait read_until(SteadyClock::time_point deadline,
                       const std::function<bool(DBusMessage&)>& done);
    /// Hands every message that is there to `take`; waits for none. False when the connection
    /// broke.
    bool read_pending(const std::function<void(DBusMessage&)>& take);
    /// Sends `call` and waits for its reply, which may be an error. Null when none comes.
    DBusMessagePtr call(DBusMessage& call, std::chrono::milliseconds limit);

  private:
    bool say_hello(std::chrono::milliseconds limit, std::string& error);

    Cancelled cancelled_;
    DBusConnectionPtr connection_;
};

/// Address of no bus that is known: libdbus may start one for the X display, or say that it cannot.
inline constexpr const char* kAutolaunch = "autolaunch:";

/// Where the session bus of this process's user listens (dbus-launch(1), "AUTOMATIC LAUNCHING"),
/// also for a process that was started outside of the user's sessions.
std::string session_bus_address();
/// Where the system bus listens.
std::string system_bus_address();

/// The descriptor that a method return holds, close-on-exec; none in any other message.
UniqueFd descriptor_in(DBusMessage& reply);

}  // namespace ox
