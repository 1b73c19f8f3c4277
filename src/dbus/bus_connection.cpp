#include "dbus/bus_connection.h"

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "base/environment.h"
#include "base/local_socket.h"

namespace ox {
namespace {

constexpr std::chrono::milliseconds kCancelInterval{50};

// libdbus checks its thread support without a lock.
void init_libdbus_threads() {
    static std::once_flag once;
    std::call_once(once, [] { dbus_threads_init_default(); });
}

// libdbus connects without a time limit: while a hanging bus has a full listen queue, it would
// block.
bool listen_queue_is_full(const std::string& address) {
    DBusAddressEntry** entries = nullptr;
    int count = 0;
    if (dbus_parse_address(address.c_str(), &entries, &count, nullptr) == FALSE) return false;
    const bool full = std::any_of(entries, entries + count, [](DBusAddressEntry* entry) {
        const char* path = dbus_address_entry_get_value(entry, "path");
        return path != nullptr && !connect_local(path) && errno == EAGAIN;
    });
    dbus_address_entries_free(entries);
    return full;
}

}  // namespace

std::string session_bus_address() {
    if (const auto address = environment("DBUS_SESSION_BUS_ADDRESS"); !address.empty()) {
        return std::string(address);
    }
    const std::string folder = runtime_folder();
    if (!folder.empty() && is_own_socket(folder + "/bus")) return "unix:path=" + folder + "/bus";
    return kAutolaunch;
}

std::string system_bus_address() {
    const auto address = environment("DBUS_SYSTEM_BUS_ADDRESS");
    return address.empty() ? "unix:path=/var/run/dbus/system_bus_socket" : std::string(address);
}

UniqueFd descriptor_in(DBusMessage& reply) {
    int fd = -1;  // a copy of the message's, close-on-exec
    if (dbus_message_get_type(&reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN) {
        dbus_message_get_args(&reply, nullptr, DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
    }
    return UniqueFd(fd);
}

bool BusConnection::open(const std::string& address, std::chrono::milliseconds limit,
                         std::string& error) {
    init_libdbus_threads();
    if (listen_queue_is_full(address)) {
        error = "the bus does not answer";
        return false;
    }
    DBusErrorText failure;
    connection_.reset(dbus_connection_open_private(address.c_str(), failure.fill()));
    if (!connection_) {
        error = failure.text();
        return false;
    }
    dbus_connection_set_exit_on_disconnect(connection_.get(), FALSE);
    if (say_hello(limit, error)) return true;
    close();
    return false;
}

// Like dbus_bus_register, which waits half a minute for a bus that does not answer.
bool BusConnection::say_hello(std::chrono::milliseconds limit, std::string& error) {
    const DBusMessagePtr hello(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                            DBUS_INTERFACE_DBUS, "Hello"));
    const DBusMessagePtr reply = hello ? call(*hello, limit) : nullptr;
    if (!reply) {
        error = is_open() ? "the bus does not answer" : "the bus refused the connection";
        return false;
    }
    DBusErrorText failure;
    const char* name = nullptr;
    if (dbus_set_error_from_message(failure.fill(), reply.get()) != FALSE ||
        dbus_message_get_args(reply.get(), failure.fill(), DBUS_TYPE_STRING, &name,
                              DBUS_TYPE_INVALID) == FALSE) {
        error = failure.text();
        return false;
    }
    dbus_bus_set_unique_name(connection_.get(), name);
    return true;
}

bool BusConnection::send(DBusMessage& message, uint32_t& serial) {
    dbus_uint32_t number = 0;
    if (!is_open() || dbus_connection_send(connection_.get(), &message, &number) == FALSE) {
        return false;
    }
    serial = number;
    return true;
}

void BusConnection::post(DBusMessage& message) {
    uint32_t serial = 0;
    if (send(message, serial)) dbus_connection_flush(connection_.get());
}

void BusConnection::add_match(const char* rule) {
    dbus_bus_add_match(connection_.get(), rule, nullptr);
}

BusWait BusConnection::read_until(SteadyClock::time_point deadline,
                                  const std::function<bool(DBusMessage&)>& done) {
    for (;;) {
        while (const DBusMessagePtr message{dbus_connection_pop_message(connection_.get())}) {
            if (done(*message)) return BusWait::Done;
        }
        if (!is_open()) return BusWait::Lost;
        if (cancelled_ && cancelled_()) return BusWait::Cancelled;
        const auto now = SteadyClock::now();
        if (now >= deadline) return BusWait::TimedOut;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now);
        dbus_connection_read_write(connection_.get(),
                                   static_cast<int>(std::min(left, kCancelInterval).count()));
    }
}

bool BusConnection::read_pending(const std::function<void(DBusMessage&)>& handle) {
    if (!connection_) return false;
    dbus_connection_read_write(connection_.get(), 0);
    while (const DBusMessagePtr message{dbus_connection_pop_message(connection_.get())})
        handle(*message);
    return is_open();
}

DBusMessagePtr BusConnection::call(DBusMessage& call, std::chrono::milliseconds limit) {
    const auto deadline = SteadyClock::now() + limit;
    uint32_t serial = 0;
    if (!send(call, serial)) return nullptr;
    DBusMessagePtr reply;
    read_until(deadline, [&](DBusMessage& message) {
        if (dbus_message_get_reply_serial(&message) != serial) return false;
        reply.reset(dbus_message_ref(&message));
        return true;
    });
    return reply;
}

}  // namespace ox
