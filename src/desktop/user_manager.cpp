#include "desktop/user_manager.h"

#include <utility>

#include "dbus/bus_connection.h"

namespace ox {
namespace {

DBusMessagePtr make_get_environment() {
    DBusMessagePtr call(dbus_message_new_method_call(
        "org.freedesktop.systemd1", "/org/freedesktop/systemd1", DBUS_INTERFACE_PROPERTIES, "Get"));
    const char* interface = "org.freedesktop.systemd1.Manager";
    const char* property = "Environment";
    if (!call ||
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING,
                                 &property, DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    dbus_message_set_auto_start(call.get(), FALSE);
    return call;
}

/// The strings of a reply that holds a variant of an array of them; empty for any other.
std::vector<std::string> strings_in(DBusMessage& reply) {
    DBusMessageIter outer;
    if (dbus_message_get_type(&reply) != DBUS_MESSAGE_TYPE_METHOD_RETURN ||
        !dbus_message_has_signature(&reply, DBUS_TYPE_VARIANT_AS_STRING) ||
        dbus_message_iter_init(&reply, &outer) == FALSE) {
        return {};
    }
    DBusMessageIter array;
    dbus_message_iter_recurse(&outer, &array);
    if (dbus_message_iter_get_arg_type(&array) != DBUS_TYPE_ARRAY ||
        dbus_message_iter_get_element_type(&array) != DBUS_TYPE_STRING) {
        return {};
    }
    std::vector<std::string> strings;
    DBusMessageIter element;
    dbus_message_iter_recurse(&array, &element);
    for (; dbus_message_iter_get_arg_type(&element) == DBUS_TYPE_STRING;
         dbus_message_iter_next(&element)) {
        const char* text = nullptr;
        dbus_message_iter_get_basic(&element, &text);
        strings.emplace_back(text);
    }
    return strings;
}

}  // namespace

std::vector<std::string> user_manager_environment(std::chrono::milliseconds limit,
                                                  std::function<bool()> cancelled) {
    const std::string address = session_bus_address();
    if (address == kAutolaunch) return {};  // a bus that is started now knows no manager
    BusConnection bus(std::move(cancelled));
    std::string error;
    if (!bus.open(address, limit, error)) return {};
    const DBusMessagePtr call = make_get_environment();
    const DBusMessagePtr reply = call ? bus.call(*call, limit) : nullptr;
    return reply ? strings_in(*reply) : std::vector<std::string>{};
}

}  // namespace ox
