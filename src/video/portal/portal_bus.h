#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "base/unique_fd.h"
#include "dbus/bus_connection.h"
#include "video/portal/pending_request.h"

namespace ox::portal {

/// How a call to the portal ended.
enum class Outcome {
    Answered,   ///< a Response came, whatever its code
    Refused,    ///< the call failed or made no request
    TimedOut,   ///< not all of it came within the limit
    Cancelled,  ///< the owner wants no answer any more
    Lost,       ///< the bus connection broke
};

struct RequestResult {
    Outcome outcome = Outcome::Refused;
    Response response{};
    std::string error{};  ///< of a failed call, in the bus's words
};

/// A private connection to the session bus for talking to the desktop portal. Used by one thread;
/// every wait ends within 50 ms once `cancelled` returns true. The portal ends what was asked for
/// over this connection when it closes, so it has to live as long as the stream.
class PortalBus {
  public:
    explicit PortalBus(BusConnection::Cancelled cancelled) : bus_(std::move(cancelled)) {}

    /// Connects to `address`, or to the session bus when it is empty. False, with the bus's words
    /// in `error`, when there is none.
    bool open(const std::string& address, std::string& error);
    void close() { bus_.close(); }

    /// Sends a call that makes a request with this handle token and waits for the request's
    /// Response. A request that is given up is closed, so that no dialog stays behind.
    RequestResult request(DBusMessage& call, const std::string& token,
                          std::chrono::milliseconds limit);

    /// Sends a call that is answered by a descriptor and waits for it; none when there is none,
    /// with the portal's words in `error` if it said why.
    UniqueFd request_fd(DBusMessage& call, std::chrono::milliseconds limit, std::string& error);

    /// Closes a request or session object without waiting for it.
    void close_object(const std::string& path, const char* interface);

  private:
    BusConnection bus_;
};

}  // namespace ox::portal
