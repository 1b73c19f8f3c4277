#include "desktop/desktop_search.h"

#include <utility>

#include "base/clock.h"
#include "base/environment.h"
#include "base/local_socket.h"
#include "dbus/bus_connection.h"
#include "desktop/folder_entries.h"
#include "desktop/user_manager.h"
#include "desktop/x_authority.h"
#include "desktop/x_server.h"

namespace ox {
namespace {

/// This machine, at this moment.
class ThisMachine final : public DesktopSources {
  public:
    explicit ThisMachine(std::function<bool()> cancelled) : cancelled_(std::move(cancelled)) {}

    std::vector<std::string> manager_environment() override {
        auto variables = user_manager_environment(kLimit, cancelled_);
        deadline_ = SteadyClock::now() + kLimit;
        return variables;
    }

    std::vector<int> x_displays() override { return local_x_displays(); }

    std::optional<XAccess> enter(int x_display, const std::string& authority_file) override {
        std::vector<XAuthorization> cookies;
        for (const std::string& file : authority_files(authority_file)) {
            const auto more = x_cookies(file, x_display);
            cookies.insert(cookies.end(), more.begin(), more.end());
        }
        cookies.emplace_back();  // many servers let everything of their user in
        for (const XAuthorization& cookie : cookies) {
            UniqueFd foothold = enter_own_x_server(x_display, cookie, deadline_, cancelled_);
            if (!foothold) continue;
            return XAccess{cookie, std::make_shared<const UniqueFd>(std::move(foothold))};
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

    /// Where display managers and desktops put it.
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
    SteadyClock::time_point deadline_ = SteadyClock::now() + kLimit;  ///< of the X servers
};

}  // namespace

Desktop desktop_of_environment(const std::string& display) {
    Desktop desktop = desktop_in(environment);
    if (!display.empty()) desktop.display = display;
    return desktop;
}

Desktop look_for_desktop(const std::string& display, std::function<bool()> cancelled) {
    ThisMachine machine(std::move(cancelled));
    return find_desktop(desktop_of_environment(display), machine);
}

bool session_bus_listens() {
    constexpr std::string_view kPath = "unix:path=";
    const std::string address = session_bus_address();
    if (address == kAutolaunch) return false;
    // Of any other kind of address its owner must know.
    const bool is_path = address.starts_with(kPath);
    return !is_path ||
           connect_local(address.substr(kPath.size(), address.find_first_of(",;") - kPath.size()))
               .is_open();
}

}  // namespace ox
