#include "video/portal/portal_bus.h"

namespace ox::portal {
namespace {

constexpr const char* kRequest = "org.freedesktop.portal.Request";
constexpr size_t kMaxEarly = 16;  // portals send one

std::string text_or_empty(const char* text) {
    return text != nullptr ? text : "";
}

constexpr std::chrono::milliseconds kHelloLimit{5000};
// Portals send a Response to the caller, or broadcast it.
constexpr const char* kResponseMatch =
    "type='signal',interface='org.freedesktop.portal.Request',member='Response',"
    "path_namespace='/org/freedesktop/portal/desktop/request'";
constexpr const char* kClosedMatch =
    "type='signal',sender='org.freedesktop.portal.Desktop',"
    "interface='org.freedesktop.portal.Session',member='Closed',"
    "path_namespace='/org/freedesktop/portal/desktop/session'";
// The portal, and its backend for the desktop.
constexpr const char* kPortalMatch =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='org.freedesktop.portal.Desktop'";
constexpr const char* kBackendMatch =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0namespace='org.freedesktop.impl.portal.desktop'";

RequestOutcome to_outcome(BusWait wait) {
    switch (wait) {
        case BusWait::Done:
            return RequestOutcome::Answered;
        case BusWait::TimedOut:
            return RequestOutcome::TimedOut;
        case BusWait::Cancelled:
            return RequestOutcome::Cancelled;
        case BusWait::Lost:
            break;
    }
    return RequestOutcome::Lost;
}

}  // namespace

PendingRequest::State PendingRequest::handle_message(DBusMessage& message) {
    const int type = dbus_message_get_type(&message);
    const bool is_reply =
        type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR;
    if (is_reply && dbus_message_get_reply_serial(&message) == serial_)
        return handle_reply(message);
    if (dbus_message_is_signal(&message, kRequest, "Response") == FALSE) return State::Waiting;
    if (!handle_.empty()) return is_ours(message) ? handle_response(message) : State::Waiting;
    if (early_.size() == kMaxEarly) early_.pop_front();
    early_.emplace_back(dbus_message_ref(&message));
    return State::Waiting;
}

PendingRequest::State PendingRequest::handle_reply(DBusMessage& reply) {
    if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_ERROR) {
        DBusErrorText error;
        dbus_set_error_from_message(error.fill(), &reply);
        error_ = text_or_empty(dbus_message_get_error_name(&reply)) + ": " + error.text();
        return State::Refused;
    }
    handle_ = reply_path(reply);
    if (handle_.empty()) return State::Refused;
    portal_ = text_or_empty(dbus_message_get_sender(&reply));
    for (const DBusMessagePtr& signal : early_) {
        if (is_ours(*signal) && handle_response(*signal) == State::Answered) return State::Answered;
    }
    return State::Waiting;
}

bool PendingRequest::is_ours(DBusMessage& signal) const {
    const std::string path = text_or_empty(dbus_message_get_path(&signal));
    return (path == handle_ || path == expected_path_) &&
           text_or_empty(dbus_message_get_sender(&signal)) == portal_;
}

PendingRequest::State PendingRequest::handle_response(DBusMessage& signal) {
    auto response = parse_response(signal);
    if (!response) return State::Waiting;
    response_ = *std::move(response);
    return State::Answered;
}

bool PortalBus::open(const std::string& address, std::string& error) {
    if (!bus_.open(address.empty() ? session_bus_address() : address, kHelloLimit, error)) {
        return false;
    }
    for (const char* rule : {kResponseMatch, kClosedMatch, kPortalMatch, kBackendMatch})
        bus_.add_match(rule);
    return true;
}

RequestResult PortalBus::request(DBusMessage& call, const std::string& token,
                                 std::chrono::milliseconds limit, const DelayCallback& on_delay) {
    const auto begin = SteadyClock::now();
    uint32_t serial = 0;
    if (!bus_.send(call, serial)) return {.outcome = RequestOutcome::Lost};
    const std::string expected_path = request_path(bus_.unique_name(), token);
    PendingRequest pending(serial, expected_path);
    bool refused = false;
    const auto answered = [&](DBusMessage& message) {
        const auto state = pending.handle_message(message);
        refused = state == PendingRequest::State::Refused;
        return state != PendingRequest::State::Waiting;
    };
    const bool has_callback = on_delay.call && on_delay.after < limit;
    BusWait wait = bus_.read_until(begin + (has_callback ? on_delay.after : limit), answered);
    if (has_callback && wait == BusWait::TimedOut) {
        on_delay.call();
        wait = bus_.read_until(begin + limit, answered);
    }
    const RequestOutcome outcome = to_outcome(wait);
    if (refused) return {.outcome = RequestOutcome::Refused, .error = pending.error()};
    if (outcome != RequestOutcome::Answered) {
        // Also before the reply has confirmed the request.
        close_object(pending.handle().empty() ? expected_path : pending.handle(),
                     "org.freedesktop.portal.Request");
    }
    return {
        .outcome = outcome,
        .response = pending.response(),
        .took = std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now() - begin)};
}

UniqueFd PortalBus::request_fd(DBusMessage& call, std::chrono::milliseconds limit,
                               std::string& error) {
    const DBusMessagePtr reply = bus_.call(call, limit);
    if (!reply) return {};
    if (DBusErrorText refused; dbus_set_error_from_message(refused.fill(), reply.get()) != FALSE)
        error = refused.text();
    return descriptor_in(*reply);
}

PortalBus::SessionEvents PortalBus::take_events(const std::string& session) {
    SessionEvents events;
    bus_.read_pending([&](DBusMessage& message) {
        events.closed = events.closed || is_session_closed(message, session);
        events.service_gone = events.service_gone || is_service_gone(message);
        if (query_serial_ != 0 && dbus_message_get_reply_serial(&message) == query_serial_) {
            events.confirmed = dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
        }
    });
    return events;
}

void PortalBus::query_session(const std::string& session) {
    const DBusMessagePtr call = make_session_query(session);
    if (!call || !bus_.send(*call, query_serial_)) query_serial_ = 0;
}

bool PortalBus::wait_for(std::chrono::milliseconds time) {
    return bus_.read_until(SteadyClock::now() + time, [](DBusMessage&) { return false; }) ==
           BusWait::TimedOut;
}

void PortalBus::close_object(const std::string& path, const char* interface) {
    if (!bus_.is_open()) return;
    if (const DBusMessagePtr call = make_close(path, interface)) bus_.post(*call);
}

}  // namespace ox::portal
