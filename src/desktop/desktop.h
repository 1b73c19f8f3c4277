#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"

namespace ox {

/// What a client says of itself so that an X server lets it in (Xsecurity(7)).
struct XAuthorization {
    std::string name{};  ///< of the scheme; empty: nothing is said, or Xlib finds out by itself
    std::string data{};

    friend bool operator==(const XAuthorization&, const XAuthorization&) = default;
};

/// A way into an X server.
struct XAccess {
    XAuthorization authorization{};
    /// A connection that was let in. A server may start anew when its last client goes, and lets
    /// nobody in meanwhile: so this one stays until there is another.
    std::shared_ptr<const UniqueFd> foothold{};
};

/// What capture has to know of the user's desktop session.
struct Desktop {
    std::string session_type{};     ///< as XDG_SESSION_TYPE has it
    std::string wayland_display{};  ///< as WAYLAND_DISPLAY has it
    std::string display{};          ///< X display; empty: Xlib asks DISPLAY
    XAccess x_access{};

    /// Whether pictures come from the desktop portal rather than from the X server.
    [[nodiscard]] bool is_wayland() const;
    [[nodiscard]] bool has_screen() const { return !display.empty() || !wayland_display.empty(); }
};

/// In words: "Wayland wayland-0", "X11 :0".
std::string describe(const Desktop& desktop);

/// Value of the variable of this name, empty when there is none.
using Variables = std::function<std::string_view(const char* name)>;
/// The variables in a list of "NAME=value", which has to outlive the result.
Variables variables_in(const std::vector<std::string>& list);

/// What the variables say, without a look at whether it is there.
Desktop desktop_in(const Variables& variables);

/// Where a desktop can be found. Each answer is of the moment.
class DesktopSources {
  public:
    DesktopSources() = default;
    DesktopSources(const DesktopSources&) = delete;
    DesktopSources& operator=(const DesktopSources&) = delete;
    virtual ~DesktopSources() = default;
    /// The environment that the user's service manager gives to what it starts.
    virtual std::vector<std::string> manager_environment() = 0;
    /// Numbers of the X displays of this machine that may be the user's, in the order of
    /// preference.
    virtual std::vector<int> x_displays() = 0;
    /// The user's way in at this X display, with what is found in `authority_file` (may be empty)
    /// and in the usual places; nothing when there is none.
    virtual std::optional<XAccess> enter(int x_display, const std::string& authority_file) = 0;
    /// Names of the user's Wayland displays, in the order of preference.
    virtual std::vector<std::string> wayland_displays() = 0;
    /// False for an empty name.
    virtual bool wayland_answers(const std::string& display) = 0;
};

/// The desktop that is there now, for a process whose environment names none (`known` has no
/// screen, but may have a session type, which holds). What the service manager says comes first, as
/// far as it is still true; then what listens on this machine, Wayland before X11, since a Wayland
/// desktop has an X server too. `known` itself when nothing is found.
Desktop find_desktop(const Desktop& known, DesktopSources& sources);

/// Number of a display of this machine (":0", ":1.0", "unix:2"); nothing for any other.
std::optional<int> local_display_number(std::string_view display);

}  // namespace ox
