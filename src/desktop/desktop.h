#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace ox {

/// The credentials of an X client (Xsecurity(7)).
struct XAuthorization {
    std::string name{};  ///< of the scheme; empty: none, or left to Xlib
    std::string data{};

    friend bool operator==(const XAuthorization&, const XAuthorization&) = default;
};

struct XAccess {
    XAuthorization authorization{};
    /// Keeps the server from resetting, and so refusing clients, when its last client disconnects.
    std::shared_ptr<const UniqueFd> held_connection{};
};

struct Desktop {
    std::string session_type{};     ///< as in XDG_SESSION_TYPE
    std::string wayland_display{};  ///< as in WAYLAND_DISPLAY
    std::string display{};          ///< X display; empty: Xlib uses DISPLAY
    XAccess x_access{};

    /// Whether it is captured through the desktop portal rather than from the X server.
    [[nodiscard]] bool is_wayland() const;
    [[nodiscard]] bool has_screen() const { return !display.empty() || !wayland_display.empty(); }
};

/// "Wayland wayland-0", "X11 :0".
std::string describe(const Desktop& desktop);

using Variables = std::function<std::string_view(const char* name)>;
/// The variables in a list of "NAME=value", which has to outlive the result.
Variables variables_in(const std::vector<std::string>& list);

/// The desktop that the variables name, whether it exists or not.
Desktop desktop_in(const Variables& variables);

/// The places to look for a desktop. Each answer may change at any time.
class DesktopSources {
  public:
    DesktopSources() = default;
    DesktopSources(const DesktopSources&) = delete;
    DesktopSources& operator=(const DesktopSources&) = delete;
    virtual ~DesktopSources() = default;
    /// The environment of the user's service manager.
    virtual std::vector<std::string> manager_environment() = 0;
    /// Numbers of the local X displays that may be the user's, best first.
    virtual std::vector<int> x_displays() = 0;
    /// As its user, with `authority_file` (may be empty) and the usual places.
    virtual std::optional<XAccess> connect_x(int x_display, const std::string& authority_file) = 0;
    /// Names of the user's Wayland displays, best first.
    virtual std::vector<std::string> wayland_displays() = 0;
    /// False for an empty name.
    virtual bool wayland_answers(const std::string& display) = 0;
};

/// Finds the running desktop where `known` has no screen; its session type, if any, decides. First,
/// the service manager's environment, if up to date; then what listens here, Wayland before X11, as
/// a Wayland desktop has an X server too. Else `known`.
Desktop find_desktop(const Desktop& known, DesktopSources& sources);

/// Number of a local X display (":0", ":1.0", "unix:2"); nothing for any other.
std::optional<int> local_display_number(std::string_view display);

}  // namespace ox
