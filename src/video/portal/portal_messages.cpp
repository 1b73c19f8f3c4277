#include "video/portal/portal_messages.h"

#include <algorithm>
#include <atomic>
#include <string_view>

namespace ox::portal {
namespace {

constexpr const char* kObjectPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr const char* kSession = "org.freedesktop.portal.Session";

/// D-Bus type code of each alternative of an option's value.
int type_of(const std::string& /*value*/) {
    return DBUS_TYPE_STRING;
}
int type_of(uint32_t /*value*/) {
    return DBUS_TYPE_UINT32;
}
int type_of(bool /*value*/) {
    return DBUS_TYPE_BOOLEAN;
}

bool append(DBusMessageIter& to, int type, const std::string& text) {
    const char* bytes = text.c_str();
    // libdbus aborts on a text that the bus does not allow.
    if (text.find('\0') != std::string::npos || dbus_validate_utf8(bytes, nullptr) == FALSE ||
        (type == DBUS_TYPE_OBJECT_PATH && dbus_validate_path(bytes, nullptr) == FALSE)) {
        return false;
    }
    return dbus_message_iter_append_basic(&to, type, &bytes) != FALSE;
}
bool append(DBusMessageIter& to, int type, uint32_t value) {
    const dbus_uint32_t number = value;
    return dbus_message_iter_append_basic(&to, type, &number) != FALSE;
}
bool append(DBusMessageIter& to, int type, bool value) {
    const dbus_bool_t flag = value ? TRUE : FALSE;
    return dbus_message_iter_append_basic(&to, type, &flag) != FALSE;
}

/// Appends a container of `type` whose contents `fill` appends.
template <typename Fill>
bool append_container(DBusMessageIter& to, int type, const char* signature, Fill&& fill) {
    DBusMessageIter inner;
    if (dbus_message_iter_open_container(&to, type, signature, &inner) == FALSE) return false;
    if (!fill(inner)) {
        dbus_message_iter_abandon_container(&to, &inner);
        return false;
    }
    return dbus_message_iter_close_container(&to, &inner) != FALSE;
}

template <typename Value>
bool append_variant(DBusMessageIter& to, const Value& value) {
    const int type = type_of(value);
    const char signature[] = {static_cast<char>(type), '\0'};
    return append_container(to, DBUS_TYPE_VARIANT, signature,
                            [&](DBusMessageIter& variant) { return append(variant, type, value); });
}

bool append_options(DBusMessageIter& to, const Options& options) {
    return append_container(to, DBUS_TYPE_ARRAY, "{sv}", [&](DBusMessageIter& dictionary) {
        return std::ranges::all_of(options, [&](const Option& option) {
            return append_container(
                dictionary, DBUS_TYPE_DICT_ENTRY, nullptr, [&](DBusMessageIter& entry) {
                    return append(entry, DBUS_TYPE_STRING, std::string(option.first)) &&
                           std::visit(
                               [&](const auto& value) { return append_variant(entry, value); },
                               option.second);
                });
        });
    });
}

template <typename Fill>
DBusMessagePtr make_screen_cast_call(const char* method, Fill&& fill) {
    DBusMessagePtr call(dbus_message_new_method_call(kBusName, kObjectPath, kScreenCast, method));
    if (!call) return nullptr;
    DBusMessageIter arguments;
    dbus_message_iter_init_append(call.get(), &arguments);
    return fill(arguments) ? std::move(call) : nullptr;
}

std::string text_at(DBusMessageIter& at) {
    const int type = dbus_message_iter_get_arg_type(&at);
    if (type != DBUS_TYPE_STRING && type != DBUS_TYPE_OBJECT_PATH) return {};
    const char* text = nullptr;
    dbus_message_iter_get_basic(&at, &text);
    return text;
}

DBusMessageIter contents_of(DBusMessageIter& container) {
    DBusMessageIter inner;
    dbus_message_iter_recurse(&container, &inner);
    return inner;
}

/// The node number of the first of the streams, an array of (node, properties).
std::optional<uint32_t> first_node(DBusMessageIter& streams) {
    if (dbus_message_iter_get_arg_type(&streams) != DBUS_TYPE_ARRAY) return std::nullopt;
    DBusMessageIter stream = contents_of(streams);
    if (dbus_message_iter_get_arg_type(&stream) != DBUS_TYPE_STRUCT) return std::nullopt;
    DBusMessageIter node = contents_of(stream);
    if (dbus_message_iter_get_arg_type(&node) != DBUS_TYPE_UINT32) return std::nullopt;
    dbus_uint32_t number = 0;
    dbus_message_iter_get_basic(&node, &number);
    return number;
}

void read_result(const std::string& key, DBusMessageIter& value, Response& out) {
    if (key == "session_handle") out.session_handle = text_at(value);
    if (key == "restore_token") out.restore_token = text_at(value);
    if (key == "streams") out.node = first_node(value);
}

}  // namespace

std::string next_token(const char* prefix) {
    static std::atomic<unsigned> counter{0};
    return prefix + std::to_string(++counter);
}

std::string request_path(const std::string& unique_name, const std::string& token) {
    std::string sender(unique_name, unique_name.starts_with(':') ? 1 : 0);
    std::ranges::replace(sender, '.', '_');
    return std::string(kObjectPath) + "/request/" + sender + "/" + token;
}

DBusMessagePtr make_call(const char* method, const Options& options) {
    return make_screen_cast_call(
        method, [&](DBusMessageIter& arguments) { return append_options(arguments, options); });
}

DBusMessagePtr make_call(const char* method, const std::string& session, const Options& options) {
    return make_screen_cast_call(method, [&](DBusMessageIter& arguments) {
        return append(arguments, DBUS_TYPE_OBJECT_PATH, session) &&
               append_options(arguments, options);
    });
}

DBusMessagePtr make_call(const char* method, const std::string& session,
                         const std::string& parent_window, const Options& options) {
    return make_screen_cast_call(method, [&](DBusMessageIter& arguments) {
        return append(arguments, DBUS_TYPE_OBJECT_PATH, session) &&
               append(arguments, DBUS_TYPE_STRING, parent_window) &&
               append_options(arguments, options);
    });
}

DBusMessagePtr make_close(const std::string& path, const char* interface) {
    if (dbus_validate_path(path.c_str(), nullptr) == FALSE) return nullptr;
    DBusMessagePtr call(dbus_message_new_method_call(kBusName, path.c_str(), interface, "Close"));
    if (call) dbus_message_set_no_reply(call.get(), TRUE);
    return call;
}

DBusMessagePtr make_session_query(const std::string& path) {
    if (dbus_validate_path(path.c_str(), nullptr) == FALSE) return nullptr;
    DBusMessagePtr call(
        dbus_message_new_method_call(kBusName, path.c_str(), DBUS_INTERFACE_PROPERTIES, "Get"));
    const char* property = "version";
    if (!call || dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &kSession, DBUS_TYPE_STRING,
                                          &property, DBUS_TYPE_INVALID) == FALSE) {
        return nullptr;
    }
    dbus_message_set_auto_start(call.get(), FALSE);
    return call;
}

bool is_session_closed(DBusMessage& message, const std::string& path) {
    return dbus_message_is_signal(&message, kSession, "Closed") != FALSE &&
           dbus_message_has_path(&message, path.c_str()) != FALSE;
}

bool is_service_gone(DBusMessage& message) {
    const char* name = nullptr;
    const char* old_owner = nullptr;
    const char* new_owner = nullptr;
    return dbus_message_is_signal(&message, DBUS_INTERFACE_DBUS, "NameOwnerChanged") != FALSE &&
           dbus_message_has_sender(&message, DBUS_SERVICE_DBUS) != FALSE &&
           dbus_message_get_args(&message, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING,
                                 &old_owner, DBUS_TYPE_STRING, &new_owner,
                                 DBUS_TYPE_INVALID) != FALSE &&
           *old_owner != '\0' && *new_owner == '\0';
}

std::optional<Response> parse_response(DBusMessage& signal) {
    if (dbus_message_has_signature(&signal, "ua{sv}") == FALSE) return std::nullopt;
    Response response;
    DBusMessageIter argument;
    dbus_message_iter_init(&signal, &argument);
    dbus_uint32_t code = 0;
    dbus_message_iter_get_basic(&argument, &code);
    response.code = code;
    dbus_message_iter_next(&argument);
    for (DBusMessageIter entry = contents_of(argument);
         dbus_message_iter_get_arg_type(&entry) == DBUS_TYPE_DICT_ENTRY;
         dbus_message_iter_next(&entry)) {
        DBusMessageIter field = contents_of(entry);
        const std::string key = text_at(field);
        dbus_message_iter_next(&field);
        DBusMessageIter value = contents_of(field);
        read_result(key, value, response);
    }
    return response;
}

std::string reply_path(DBusMessage& reply) {
    DBusMessageIter argument;
    if (dbus_message_iter_init(&reply, &argument) == FALSE) return {};
    const bool is_path = dbus_message_iter_get_arg_type(&argument) == DBUS_TYPE_OBJECT_PATH;
    return is_path ? text_at(argument) : std::string{};
}

}  // namespace ox::portal
