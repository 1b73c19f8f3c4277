#pragma once

#include <chrono>
#include <cstdint>
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

/// Something that is to be done once if a request is not answered `after` that time.
struct WhenLate {
    std::chrono::milliseconds after{};
    std::function<void()> act{};
};

struct RequestResult {
    Outcome outcome = Outcome::Refused;
    Response response{};
    std::string error{};  ///< of a failed call, in the bus's words
    std::chrono::milliseconds took{};
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
                          std::chrono::milliseconds limit, const WhenLate& late = {});

    /// Sends a call that is answered by a descriptor and waits for it; none when there is none,
    /// with the portal's words in `error` if it said why.
    UniqueFd request_fd(DBusMessage& call, std::chrono::milliseconds limit, std::string& error);

    /// What has been said about a session since the last look.
    struct News {
        bool closed = false;           ///< the portal has closed it
        bool still_open = false;       ///< the portal has answered `ask_for_session`
        bool service_gone = false;     ///< a part of the portal has ended
        bool connection_lost = false;  ///< nothing more will be heard
    };
    /// Takes in what has come; waits for nothing. Every signal that comes while a request is waited
    /// for is lost to it.
    News take_news(const std::string& session);
    /// Asks the portal, without waiting, whether it has this session.
    void ask_for_session(const std::string& session);

    /// Waits. False when the owner cancels or the connection breaks.
    bool pause(std::chrono::milliseconds time);

    /// Closes a request or session object without waiting for it.
    void close_object(const std::string& path, const char* interface);

  private:
    BusConnection bus_;
    uint32_t question_ = 0;  ///< serial of the last `ask_for_session`; 0: none
};

}  // namespace ox::portal
