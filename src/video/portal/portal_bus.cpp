#include "video/portal/portal_bus.h"

#include <algorithm>

namespace ox::portal {
namespace {

constexpr std::chrono::milliseconds kSlice{50};  // between two looks at the cancel condition
// The portal sends a request's Response to its caller, or to everybody who listens.
constexpr const char* kResponseMatch =
    "type='signal',interface='org.freedesktop.portal.Request',member='Response',"
    "path_namespace='/org/freedesktop/portal/desktop/request'";

DBusConnectionPtr connect(const std::string& address, DBusErrorText& error) {
    if (address.empty()) {
        return DBusConnectionPtr(dbus_bus_get_private(DBUS_BUS_SESSION, error.fill()));
    }
    DBusConnectionPtr connection(dbus_connection_open_private(address.c_str(), error.fill()));
    if (connection && dbus_bus_register(connection.get(), error.fill()) == FALSE) return nullptr;
    return connection;
}

UniqueFd descriptor_in(DBusMessage& reply) {
    int fd = -1;  // a copy of the message's, close-on-exec
    dbus_message_get_args(&reply, nullptr, DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
    return UniqueFd(fd);
}

}  // namespace

bool PortalBus::open(const std::string& address, std::string& error) {
    DBusErrorText failure;
    connection_ = connect(address, failure);
    if (!connection_) {
        error = failure.text();
        return false;
    }
    dbus_connection_set_exit_on_disconnect(connection_.get(), FALSE);
    // Not waited for: the bus deals with it before any later call.
    dbus_bus_add_match(connection_.get(), kResponseMatch, nullptr);
    return true;
}

bool PortalBus::send(DBusMessage& call, uint32_t& serial) {
    dbus_uint32_t number = 0;
    if (dbus_connection_send(connection_.get(), &call, &number) == FALSE) return false;
    serial = number;
    return true;
}

Outcome PortalBus::read_until(SteadyClock::time_point deadline,
                              const std::function<bool(DBusMessage&)>& done) {
    for (;;) {
        while (const DBusMessagePtr message{dbus_connection_pop_message(connection_.get())}) {
            if (done(*message)) return Outcome::Answered;
        }
        if (dbus_connection_get_is_connected(connection_.get()) == FALSE) return Outcome::Lost;
        if (cancelled_ && cancelled_()) return Outcome::Cancelled;
        const auto now = SteadyClock::now();
        if (now >= deadline) return Outcome::TimedOut;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        dbus_connection_read_write(connection_.get(),
                                   static_cast<int>(std::min(left, kSlice).count()));
    }
}

RequestResult PortalBus::request(DBusMessage& call, const std::string& token,
                                 std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    uint32_t serial = 0;
    if (!send(call, serial)) return {.outcome = Outcome::Lost};
    PendingRequest pending(serial);
    bool refused = false;
    const Outcome outcome = read_until(deadline, [&](DBusMessage& message) {
        const auto state = pending.take(message);
        refused = state == PendingRequest::State::Refused;
        return state != PendingRequest::State::Waiting;
    });
    if (refused) return {.outcome = Outcome::Refused, .error = pending.error()};
    if (outcome != Outcome::Answered) {
        // Also when nobody has said yet that the request is there.
        const std::string path =
            pending.handle().empty()
                ? request_path(dbus_bus_get_unique_name(connection_.get()), token)
                : pending.handle();
        close_object(path, "org.freedesktop.portal.Request");
    }
    return {.outcome = outcome, .response = pending.response()};
}

UniqueFd PortalBus::request_fd(DBusMessage& call, std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    uint32_t serial = 0;
    if (!send(call, serial)) return {};
    UniqueFd fd;
    read_until(deadline, [&](DBusMessage& message) {
        if (dbus_message_get_reply_serial(&message) != serial) return false;
        if (dbus_message_get_type(&message) == DBUS_MESSAGE_TYPE_METHOD_RETURN) {
            fd = descriptor_in(message);
        }
        return true;
    });
    return fd;
}

void PortalBus::close_object(const std::string& path, const char* interface) {
    if (!connection_ || dbus_connection_get_is_connected(connection_.get()) == FALSE) return;
    const DBusMessagePtr call = make_close(path, interface);
    uint32_t serial = 0;
    if (call && send(*call, serial)) dbus_connection_flush(connection_.get());
}

}  // namespace ox::portal
