#include "check/portal_probe.h"

#include <cstdint>
#include <optional>
#include <string_view>

#include "dbus/bus_connection.h"
#include "desktop/desktop_search.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr uint32_t kMonitor = 1;              // of the source types
constexpr uint32_t kFirstWithTokens = 4;      // version of the ScreenCast interface
constexpr const char* kTable = "screencast";  // where the portal keeps what it was allowed

DBusMessagePtr make_property_query(const char* property) {
    DBusMessagePtr call(dbus_message_new_method_call("org.freedesktop.portal.Desktop",
                                                     "/org/freedesktop/portal/desktop",
                                                     DBUS_INTERFACE_PROPERTIES, "Get"));
    const char* interface = "org.freedesktop.portal.ScreenCast";
    if (!call ||
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING,
                                 &property, DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    return call;
}

/// The number in a reply that holds a variant of one; nothing for any other.
std::optional<uint32_t> number_in(DBusMessage& reply) {
    DBusMessageIter outer;
    if (dbus_message_get_type(&reply) != DBUS_MESSAGE_TYPE_METHOD_RETURN ||
        !dbus_message_has_signature(&reply, DBUS_TYPE_VARIANT_AS_STRING) ||
        dbus_message_iter_init(&reply, &outer) == FALSE) {
        return std::nullopt;
    }
    DBusMessageIter value;
    dbus_message_iter_recurse(&outer, &value);
    if (dbus_message_iter_get_arg_type(&value) != DBUS_TYPE_UINT32) return std::nullopt;
    dbus_uint32_t number = 0;
    dbus_message_iter_get_basic(&value, &number);
    return number;
}

std::optional<uint32_t> property_of_portal(BusConnection& bus, const char* property,
                                           std::chrono::milliseconds limit) {
    const DBusMessagePtr call = make_property_query(property);
    const DBusMessagePtr reply = call ? bus.call(*call, limit) : nullptr;
    return reply ? number_in(*reply) : std::nullopt;
}

/// Whether the desktop says that it does not know this token (any more). A desktop that keeps its
/// permissions elsewhere says nothing of the kind.
bool is_forgotten(BusConnection& bus, const std::string& token, std::chrono::milliseconds limit) {
    const DBusMessagePtr call(
        dbus_message_new_method_call("org.freedesktop.impl.portal.PermissionStore",
                                     "/org/freedesktop/impl/portal/PermissionStore",
                                     "org.freedesktop.impl.portal.PermissionStore", "Lookup"));
    const char* table = kTable;
    const char* id = token.c_str();
    if (!call || dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &table, DBUS_TYPE_STRING,
                                          &id, DBUS_TYPE_INVALID) == FALSE) {
        return false;
    }
    const DBusMessagePtr reply = bus.call(*call, limit);
    return reply &&
           dbus_message_is_error(reply.get(), "org.freedesktop.portal.Error.NotFound") != FALSE;
}

}  // namespace

PortalAnswer probe_portal(const std::string& bus_address, const RestoreTokenFile& token_file,
                          std::chrono::milliseconds limit) {
    if (bus_address.empty() && !session_bus_listens()) return PortalAnswer::Missing;
    BusConnection bus({});
    std::string error;
    if (!bus.open(bus_address.empty() ? session_bus_address() : bus_address, limit, error)) {
        OX_INFO("Check: no session bus: %s", error.c_str());
        return PortalAnswer::Missing;
    }
    const auto version = property_of_portal(bus, "version", limit);
    const auto sources = property_of_portal(bus, "AvailableSourceTypes", limit);
    OX_INFO("Check: portal's ScreenCast version %u, source types %u", version.value_or(0),
            sources.value_or(0));
    if (!version || (sources.value_or(0) & kMonitor) == 0) return PortalAnswer::Missing;
    const auto token = token_file.read();
    if (*version < kFirstWithTokens || !token) return PortalAnswer::Asks;
    return is_forgotten(bus, *token, limit) ? PortalAnswer::Asks : PortalAnswer::KnowsToken;
}

}  // namespace ox
