#include "desktop/desktop.h"

#include <algorithm>
#include <charconv>

namespace ox {

bool Desktop::is_wayland() const {
    return session_type == "wayland" || (session_type != "x11" && !wayland_display.empty());
}

std::string describe(const Desktop& desktop) {
    return desktop.is_wayland() ? "Wayland " + desktop.wayland_display : "X11 " + desktop.display;
}

Variables variables_in(const std::vector<std::string>& list) {
    return [&list](std::string_view name) -> std::string_view {
        for (const std::string_view entry : list) {
            if (entry.size() > name.size() && entry[name.size()] == '=' &&
                entry.starts_with(name)) {
                return entry.substr(name.size() + 1);
            }
        }
        return {};
    };
}

Desktop desktop_in(const Variables& variables) {
    return {.session_type = std::string(variables("XDG_SESSION_TYPE")),
            .wayland_display = std::string(variables("WAYLAND_DISPLAY")),
            .display = std::string(variables("DISPLAY"))};
}

namespace {

// The desktop that the variables name, without what does not exist: they may be left over from an
// earlier session.
Desktop existing_desktop(const Variables& variables, DesktopSources& sources) {
    Desktop desktop = desktop_in(variables);
    const auto drop = [&](std::string& display, std::string_view session_type) {
        if (!display.empty() && desktop.session_type == session_type) desktop.session_type.clear();
        display.clear();
    };
    if (!sources.wayland_answers(desktop.wayland_display)) drop(desktop.wayland_display, "wayland");
    const auto number = local_display_number(desktop.display);
    const auto access =
        number ? sources.connect_x(*number, std::string(variables("XAUTHORITY"))) : std::nullopt;
    if (access) {
        desktop.x_access = *access;
    } else {
        drop(desktop.display, "x11");
    }
    return desktop;
}

// The desktop that listens on this machine.
Desktop listening_desktop(DesktopSources& sources) {
    Desktop desktop;
    const auto wayland = sources.wayland_displays();
    const auto answering = std::find_if(wayland.begin(), wayland.end(), [&](const auto& display) {
        return sources.wayland_answers(display);
    });
    if (answering != wayland.end()) desktop.wayland_display = *answering;
    for (const int number : sources.x_displays()) {
        const auto access = sources.connect_x(number, {});
        if (!access) continue;
        desktop.display = ":" + std::to_string(number);
        desktop.x_access = *access;
        break;
    }
    return desktop;
}

}  // namespace

Desktop find_desktop(const Desktop& known, DesktopSources& sources) {
    if (known.has_screen()) return known;
    const std::vector<std::string> list = sources.manager_environment();
    Desktop found = existing_desktop(variables_in(list), sources);
    if (!found.has_screen()) found = listening_desktop(sources);
    if (!found.has_screen()) return known;
    // The "tty" of a remote login does not describe the desktop.
    if (known.session_type == "x11" || known.session_type == "wayland") {
        found.session_type = known.session_type;
    }
    return found;
}

std::optional<int> local_display_number(std::string_view display) {
    if (display.starts_with("unix:")) display.remove_prefix(4);
    if (!display.starts_with(':')) return std::nullopt;
    display.remove_prefix(1);
    int number = 0;
    const auto [end, error] = std::from_chars(display.begin(), display.end(), number);
    const std::string_view rest(end, display.end());
    const bool whole = rest.empty() || rest.front() == '.';
    if (error != std::errc{} || number < 0 || !whole) return std::nullopt;
    return number;
}

}  // namespace ox
