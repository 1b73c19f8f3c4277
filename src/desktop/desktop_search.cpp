#include "desktop/desktop_search.h"

#include <utility>

#include "base/clock.h"
#include "base/environment.h"
#include "base/local_socket.h"
#include "dbus/bus_connection.h"
#include "desktop/folder_entries.h"
#include "desktop/x_server.h"

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

// The strings in a reply with a variant of an array of them; empty for any other.
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

// The environment of the user's service manager ("NAME=value"), into which desktops put what the
// programs of their session need (systemd, org.freedesktop.systemd1.Manager, property
// "Environment"). Empty when there is no session bus or no such manager on it. Blocks for at most
// twice `limit`, and no longer than 50 ms once `cancelled`, which may be empty, returns true.
std::vector<std::string> user_manager_environment(std::chrono::milliseconds limit,
                                                  std::function<bool()> cancelled) {
    const std::string address = session_bus_address();
    if (address == kAutolaunch) return {};  // a new bus would have no manager
    BusConnection bus(std::move(cancelled));
    std::string error;
    if (!bus.open(address, limit, error)) return {};
    const DBusMessagePtr call = make_get_environment();
    const DBusMessagePtr reply = call ? bus.call(*call, limit) : nullptr;
    return reply ? strings_in(*reply) : std::vector<std::string>{};
}

// Looks on this machine.
class ThisMachine final : public DesktopSources {
  public:
    explicit ThisMachine(std::function<bool()> cancelled) : cancelled_(std::move(cancelled)) {}

    std::vector<std::string> manager_environment() override {
        auto variables = user_manager_environment(kLimit, cancelled_);
        deadline_ = SteadyClock::now() + kLimit;
        return variables;
    }

    std::vector<int> x_displays() override { return local_x_displays(); }

    std::optional<XAccess> connect_x(int x_display, const std::string& authority_file) override {
        std::vector<XAuthorization> cookies;
        for (const std::string& file : authority_files(authority_file)) {
            const auto more = x_cookies(file, x_display);
            cookies.insert(cookies.end(), more.begin(), more.end());
        }
        cookies.emplace_back();  // many servers admit all of their user's processes
        for (const XAuthorization& cookie : cookies) {
            UniqueFd connection = connect_own_x_server(x_display, cookie, deadline_, cancelled_);
            if (!connection) continue;
            return XAccess{cookie, std::make_shared<const UniqueFd>(std::move(connection))};
        }
        return std::nullopt;
    }

    std::vector<std::string> wayland_displays() override {
        std::vector<std::string> displays;
        if (runtime_.empty()) return displays;
        for (const std::string& path : folder_entries(runtime_, "wayland-")) {
            if (is_own_socket(path)) displays.push_back(path.substr(runtime_.size() + 1));
        }
        return displays;
    }

    bool wayland_answers(const std::string& display) override {
        if (display.empty()) return false;
        const std::string path = display.front() == '/' ? display : runtime_ + "/" + display;
        return is_own_socket(path) && connect_local(path).is_open();
    }

  private:
    static constexpr std::chrono::milliseconds kLimit{1000};

    // Where display managers and desktops put them.
    [[nodiscard]] std::vector<std::string> authority_files(const std::string& named) const {
        std::vector<std::string> files{named, std::string(environment("XAUTHORITY")),
                                       home_folder() + "/.Xauthority"};
        if (!runtime_.empty()) {
            files.push_back(runtime_ + "/gdm/Xauthority");
            for (const char* prefix : {"xauth_", ".mutter-Xwaylandauth."}) {
                const auto more = folder_entries(runtime_, prefix);
                files.insert(files.end(), more.begin(), more.end());
            }
        }
        return files;
    }

    std::function<bool()> cancelled_;
    std::string runtime_ = runtime_folder();
    SteadyClock::time_point deadline_ = SteadyClock::now() + kLimit;  // for the X servers
};

}  // namespace

Desktop desktop_of_environment(const std::string& display) {
    Desktop desktop = desktop_in(environment);
    if (!display.empty()) desktop.display = display;
    return desktop;
}

Desktop search_desktop(const std::string& display, std::function<bool()> cancelled) {
    ThisMachine machine(std::move(cancelled));
    return find_desktop(desktop_of_environment(display), machine);
}

bool session_bus_listens() {
    constexpr std::string_view kPath = "unix:path=";
    const std::string address = session_bus_address();
    if (address == kAutolaunch) return false;
    // Other kinds of addresses cannot be checked.
    const bool is_path = address.starts_with(kPath);
    return !is_path ||
           connect_local(address.substr(kPath.size(), address.find_first_of(",;") - kPath.size()))
               .is_open();
}

}  // namespace ox
