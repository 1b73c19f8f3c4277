#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>

#include "video/portal/portal_messages.h"

namespace ox::portal {

/// One portal call on its way: takes every message that comes in and picks out the call's reply and
/// the Response signal of the request that it names, in whatever order they come. Other requests'
/// signals, and signals of anybody but the portal that replied, do not count.
class PendingRequest {
  public:
    enum class State {
        Waiting,
        Answered,  ///< `response()` is there
        Refused,   ///< the call failed or made no request; `error()` tells why
    };

    /// `serial` is that of the call as it was sent, `expected_path` where its handle token puts the
    /// request. A Response counts there as well as at the path that the reply names, should an old
    /// portal have chosen another.
    PendingRequest(uint32_t serial, std::string expected_path)
        : serial_(serial), expected_path_(std::move(expected_path)) {}

    State take(DBusMessage& message);

    [[nodiscard]] const Response& response() const { return response_; }
    /// The request's object path; empty until the reply is there.
    [[nodiscard]] const std::string& handle() const { return handle_; }
    /// D-Bus error name and text of a failed call.
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    State take_reply(DBusMessage& reply);
    [[nodiscard]] bool is_ours(DBusMessage& signal) const;
    State answer(DBusMessage& signal);

    uint32_t serial_;
    std::string expected_path_;
    std::string handle_;
    std::string portal_;                ///< unique bus name of whoever replied
    std::deque<DBusMessagePtr> early_;  ///< Response signals from before the reply, newest last
    Response response_;
    std::string error_;
};

}  // namespace ox::portal
