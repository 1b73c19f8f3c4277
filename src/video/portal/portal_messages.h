#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "dbus/dbus_handles.h"

// The messages of the org.freedesktop.portal.ScreenCast interface, and what is read from their
// answers. Nothing here touches a connection. Formats: the "XDG Desktop Portal" documentation of
// org.freedesktop.portal.ScreenCast and org.freedesktop.portal.Request.
namespace ox::portal {

inline constexpr const char* kBusName = "org.freedesktop.portal.Desktop";

/// One entry of a call's options dictionary (a{sv}); the alternative gives the D-Bus type.
using Option = std::pair<const char*, std::variant<std::string, uint32_t, bool>>;
using Options = std::vector<Option>;

/// Names a request or a session: `prefix` and the next number of a counter of this process.
std::string next_token(const char* prefix);

/// The object path at which the portal makes the request with this handle token for the bus
/// connection `unique_name` (":1.42").
std::string request_path(const std::string& unique_name, const std::string& token);

/// A call of the ScreenCast interface with options only, or for a session, or for a session and a
/// parent window. Null when libdbus has no memory or a text is not UTF-8 or no object path.
DBusMessagePtr make_call(const char* method, const Options& options);
DBusMessagePtr make_call(const char* method, const std::string& session, const Options& options);
DBusMessagePtr make_call(const char* method, const std::string& session,
                         const std::string& parent_window, const Options& options);

/// The call that closes a request or session object ("org.freedesktop.portal.Request" or
/// "....Session"); it wants no reply.
DBusMessagePtr make_close(const std::string& path, const char* interface);

/// The call that asks for a property which every session object of the portal has: answered by an
/// error when there is no session at `path` any more. Starts no portal.
DBusMessagePtr make_session_query(const std::string& path);

/// Whether a message is the signal that tells that the session at `path` is over.
bool is_session_closed(DBusMessage& message, const std::string& path);

/// Whether a message is the bus's word that a name's owner has gone, without another in its place.
bool is_service_gone(DBusMessage& message);

/// What a request's Response signal brought. Members that the results did not hold are empty.
struct Response {
    uint32_t code = 0;  ///< 0 granted, 1 cancelled by the user, 2 ended otherwise
    std::string session_handle;
    std::string restore_token;
    std::optional<uint32_t> node;  ///< PipeWire node of the first stream
};

/// Reads a Response signal; nothing when the message has another shape. Unknown results and results
/// of another type than expected are left out.
std::optional<Response> parse_response(DBusMessage& signal);

/// The object path that a method's reply holds, or an empty text.
std::string reply_path(DBusMessage& reply);

}  // namespace ox::portal
