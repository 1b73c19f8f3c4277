#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <utility>

#include "base/unique_fd.h"
#include "dbus/bus_connection.h"
#include "video/portal/portal_messages.h"

namespace ox::portal {

/// Matches messages to one portal call: its reply, and the Response of the request that this names,
/// in any order. Those of other requests, and of other senders than the replier, are ignored.
class PendingRequest {
  public:
    enum class State {
        Waiting,
        Answered,  ///< see `response()`
        Refused,   ///< the call failed or made no request; see `error()`
    };

    /// The sent call's `serial` and its request's path by the handle token. A Response counts there
    /// as well as at the path in the reply, which old portals choose themselves.
    PendingRequest(uint32_t serial, std::string expected_path)
        : serial_(serial), expected_path_(std::move(expected_path)) {}

    State handle_message(DBusMessage& message);

    [[nodiscard]] const Response& response() const { return response_; }
    /// The request's object path; empty until the reply has come.
    [[nodiscard]] const std::string& handle() const { return handle_; }
    /// D-Bus error name and text of a failed call.
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    State handle_reply(DBusMessage& reply);
    [[nodiscard]] bool is_ours(DBusMessage& signal) const;
    State handle_response(DBusMessage& signal);

    uint32_t serial_;
    std::string expected_path_;
    std::string handle_;
    std::string portal_;                ///< unique bus name of the replying portal
    std::deque<DBusMessagePtr> early_;  ///< Response signals before the reply, newest last
    Response response_;
    std::string error_;
};

enum class RequestOutcome {
    Answered,  ///< a Response came, whatever its code
    Refused,   ///< the call failed or made no request
    TimedOut,
    Cancelled,
    Lost,  ///< the bus connection broke
};

/// Called once if a request is not answered within `after`.
struct DelayCallback {
    std::chrono::milliseconds after{};
    std::function<void()> call{};
};

struct RequestResult {
    RequestOutcome outcome = RequestOutcome::Refused;
    Response response{};
    std::string error{};  ///< the bus's message for a failed call
    std::chrono::milliseconds took{};
};

/// A private connection to the session bus for the desktop portal. One thread; every wait ends
/// within 50 ms once `cancelled` is true. Closing it ends the portal's sessions, and so the stream.
class PortalBus {
  public:
    explicit PortalBus(BusConnection::Cancelled cancelled) : bus_(std::move(cancelled)) {}

    /// Empty `address`: the session bus. False, with the reason in `error`, on failure.
    bool open(const std::string& address, std::string& error);

    /// Waits for the Response. An abandoned request is closed, so that its dialog disappears.
    RequestResult request(DBusMessage& call, const std::string& token,
                          std::chrono::milliseconds limit, const DelayCallback& on_delay = {});

    /// Waits for a descriptor; on failure none, with the portal's reason in `error` if it gave one.
    UniqueFd request_fd(DBusMessage& call, std::chrono::milliseconds limit, std::string& error);

    struct SessionEvents {
        bool closed = false;        ///< the portal has closed it
        bool confirmed = false;     ///< the portal has answered `query_session`: it is open
        bool service_gone = false;  ///< a part of the portal has ended
    };
    /// Reads what has arrived, without waiting. Signals that come during a `request` are not seen.
    SessionEvents take_events(const std::string& session);
    /// Asks the portal, without waiting, whether this session is open.
    void query_session(const std::string& session);

    /// Waits. False when cancelled or disconnected.
    bool wait_for(std::chrono::milliseconds time);

    /// Closes a request or session object without waiting for it.
    void close_object(const std::string& path, const char* interface);

  private:
    BusConnection bus_;
    uint32_t query_serial_ = 0;  ///< of the last `query_session`; 0: none
};

}  // namespace ox::portal
