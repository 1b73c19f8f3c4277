#include "video/portal/portal_bus.h"

namespace ox::portal {
namespace {

constexpr std::chrono::milliseconds kHelloLimit{5000};
// The portal sends a request's Response to its caller, or to everybody who listens.
constexpr const char* kResponseMatch =
    "type='signal',interface='org.freedesktop.portal.Request',member='Response',"
    "path_namespace='/org/freedesktop/portal/desktop/request'";
constexpr const char* kClosedMatch =
    "type='signal',sender='org.freedesktop.portal.Desktop',"
    "interface='org.freedesktop.portal.Session',member='Closed',"
    "path_namespace='/org/freedesktop/portal/desktop/session'";
// The portal, and its part for the desktop.
constexpr const char* kPortalMatch =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='org.freedesktop.portal.Desktop'";
constexpr const char* kBackendMatch =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0namespace='org.freedesktop.impl.portal.desktop'";

Outcome to_outcome(BusWait wait) {
    switch (wait) {
        case BusWait::Done:
            return Outcome::Answered;
        case BusWait::TimedOut:
            return Outcome::TimedOut;
        case BusWait::Cancelled:
            return Outcome::Cancelled;
        case BusWait::Lost:
            break;
    }
    return Outcome::Lost;
}

}  // namespace

bool PortalBus::open(const std::string& address, std::string& error) {
    if (!bus_.open(address.empty() ? session_bus_address() : address, kHelloLimit, error)) {
        return false;
    }
    for (const char* rule : {kResponseMatch, kClosedMatch, kPortalMatch, kBackendMatch})
        bus_.add_match(rule);
    return true;
}

RequestResult PortalBus::request(DBusMessage& call, const std::string& token,
                                 std::chrono::milliseconds limit, const WhenLate& late) {
    const auto begin = SteadyClock::now();
    uint32_t serial = 0;
    if (!bus_.send(call, serial)) return {.outcome = Outcome::Lost};
    const std::string expected_path = request_path(bus_.unique_name(), token);
    PendingRequest pending(serial, expected_path);
    bool refused = false;
    const auto answered = [&](DBusMessage& message) {
        const auto state = pending.take(message);
        refused = state == PendingRequest::State::Refused;
        return state != PendingRequest::State::Waiting;
    };
    const bool may_be_late = late.act && late.after < limit;
    BusWait wait = bus_.read_until(begin + (may_be_late ? late.after : limit), answered);
    if (may_be_late && wait == BusWait::TimedOut) {
        late.act();
        wait = bus_.read_until(begin + limit, answered);
    }
    const Outcome outcome = to_outcome(wait);
    if (refused) return {.outcome = Outcome::Refused, .error = pending.error()};
    if (outcome != Outcome::Answered) {
        // Also when nobody has said yet that the request is there.
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

PortalBus::News PortalBus::take_news(const std::string& session) {
    News news;
    const bool open = bus_.read_pending([&](DBusMessage& message) {
        news.closed = news.closed || is_session_closed(message, session);
        news.service_gone = news.service_gone || is_service_gone(message);
        if (question_ != 0 && dbus_message_get_reply_serial(&message) == question_) {
            news.still_open = dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
        }
    });
    news.connection_lost = !open;
    return news;
}

void PortalBus::ask_for_session(const std::string& session) {
    if (const DBusMessagePtr call = make_session_query(session);
        !call || !bus_.send(*call, question_))
        question_ = 0;
}

bool PortalBus::pause(std::chrono::milliseconds time) {
    return bus_.read_until(SteadyClock::now() + time, [](DBusMessage&) { return false; }) ==
           BusWait::TimedOut;
}

void PortalBus::close_object(const std::string& path, const char* interface) {
    if (!bus_.is_open()) return;
    if (const DBusMessagePtr call = make_close(path, interface)) bus_.post(*call);
}

}  // namespace ox::portal
