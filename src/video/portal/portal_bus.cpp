#include "video/portal/portal_bus.h"

namespace ox::portal {
namespace {

constexpr std::chrono::milliseconds kHelloLimit{5000};
// The portal sends a request's Response to its caller, or to everybody who listens.
constexpr const char* kResponseMatch =
    "type='signal',interface='org.freedesktop.portal.Request',member='Response',"
    "path_namespace='/org/freedesktop/portal/desktop/request'";

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
    bus_.add_match(kResponseMatch);
    return true;
}

RequestResult PortalBus::request(DBusMessage& call, const std::string& token,
                                 std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    uint32_t serial = 0;
    if (!bus_.send(call, serial)) return {.outcome = Outcome::Lost};
    const std::string expected_path = request_path(bus_.unique_name(), token);
    PendingRequest pending(serial, expected_path);
    bool refused = false;
    const Outcome outcome = to_outcome(bus_.read_until(deadline, [&](DBusMessage& message) {
        const auto state = pending.take(message);
        refused = state == PendingRequest::State::Refused;
        return state != PendingRequest::State::Waiting;
    }));
    if (refused) return {.outcome = Outcome::Refused, .error = pending.error()};
    if (outcome != Outcome::Answered) {
        // Also when nobody has said yet that the request is there.
        close_object(pending.handle().empty() ? expected_path : pending.handle(),
                     "org.freedesktop.portal.Request");
    }
    return {.outcome = outcome, .response = pending.response()};
}

UniqueFd PortalBus::request_fd(DBusMessage& call, std::chrono::milliseconds limit,
                               std::string& error) {
    const DBusMessagePtr reply = bus_.call(call, limit);
    if (!reply) return {};
    if (DBusErrorText refused; dbus_set_error_from_message(refused.fill(), reply.get()) != FALSE)
        error = refused.text();
    return descriptor_in(*reply);
}

void PortalBus::close_object(const std::string& path, const char* interface) {
    if (!bus_.is_open()) return;
    if (const DBusMessagePtr call = make_close(path, interface)) bus_.post(*call);
}

}  // namespace ox::portal
