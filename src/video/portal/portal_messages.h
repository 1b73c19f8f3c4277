#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "dbus/dbus_handles.h"

// The messages of the org.freedesktop.portal.ScreenCast interface ("XDG Desktop Portal"
// documentation). Nothing here touches a connection.
namespace ox::portal {

inline constexpr const char* kBusName = "org.freedesktop.portal.Desktop";

/// One entry of a call's options dictionary (a{sv}).
using Option = std::pair<const char*, std::variant<std::string, uint32_t, bool>>;
using Options = std::vector<Option>;

/// A name for a request or a session: `prefix` and a number unique in this process.
std::string next_token(const char* prefix);

/// Object path of the request with this handle token of the bus connection `unique_name` (":1.42").
std::string request_path(const std::string& unique_name, const std::string& token);

/// A call of the ScreenCast interface with options only, or for a session, or for a session and a
/// parent window. Null when out of memory, or when a text is not UTF-8 or no object path.
DBusMessagePtr make_call(const char* method, const Options& options);
DBusMessagePtr make_call(const char* method, const std::string& session, const Options& options);
DBusMessagePtr make_call(const char* method, const std::string& session,
                         const std::string& parent_window, const Options& options);

/// For "org.freedesktop.portal.Request" or "....Session"; without a reply.
DBusMessagePtr make_close(const std::string& path, const char* interface);

/// Reads a property that sessions have: fails once there is none at `path`. Starts no portal.
DBusMessagePtr make_session_query(const std::string& path);

bool is_session_closed(DBusMessage& message, const std::string& path);

/// Whether a message is the bus's signal that a name has lost its owner, without a successor.
bool is_service_gone(DBusMessage& message);

/// Contents of a request's Response signal; results that are missing in it are empty.
struct Response {
    uint32_t code = 0;  ///< 0 granted, 1 cancelled by the user, 2 ended otherwise
    std::string session_handle;
    std::string restore_token;
    std::optional<uint32_t> node;  ///< PipeWire node of the first stream
};

/// Nothing when the signature is another; unknown results and those of another type are ignored.
std::optional<Response> parse_response(DBusMessage& signal);

/// The object path in a method's reply, or an empty text.
std::string reply_path(DBusMessage& reply);

}  // namespace ox::portal
