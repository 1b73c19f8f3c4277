#include "support/wayland_desktop.h"

#include <dbus/dbus.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "support/eventually.h"
#include "support/unix_socket.h"

namespace ox::test {
namespace {

constexpr std::chrono::seconds kStartLimit{30};

constexpr uid_t kNobody = 65534;

bool listening(ChildProcess& process, const std::string& socket) {
    return eventually([&] { return !process.running() || connect_unix(socket).is_open(); },
                      kStartLimit) &&
           process.running();
}

// Without service folders: what is not started here is not there.
std::string bus_config(const std::string& socket) {
    return "<busconfig><type>session</type><listen>unix:path=" + socket +
           "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/><allow "
           "own=\"*\"/>"
           "</policy></busconfig>\n";
}

}  // namespace

std::vector<std::string> WaylandDesktop::environment() const {
    const std::string folder = dir_.path().string();
    return {"DBUS_SESSION_BUS_ADDRESS=" + bus_address(),
            "XDG_RUNTIME_DIR=" + folder,
            "XDG_CONFIG_HOME=" + folder,
            "XDG_STATE_HOME=" + folder,
            "HOME=" + folder,
            "XDG_SESSION_TYPE=wayland",
            "WAYLAND_DISPLAY=wayland-0",
            "PIPEWIRE_REMOTE",
            "PIPEWIRE_RUNTIME_DIR",
            "DISPLAY"};
}

void WaylandDesktop::run(std::unique_ptr<ChildProcess>& process, std::vector<std::string> argv,
                         const std::vector<std::string>& more_environment) const {
    process.reset();
    auto everything = environment();
    everything.insert(everything.end(), more_environment.begin(), more_environment.end());
    const auto name = std::filesystem::path(argv[0]).filename().string();
    process = std::make_unique<ChildProcess>(
        ChildProcess::Options{.argv = std::move(argv),
                              .environment = everything,
                              .stderr_path = dir_.file(name + ".err")});
}

std::unique_ptr<WaylandDesktop> WaylandDesktop::start() {
    std::unique_ptr<WaylandDesktop> desktop(new WaylandDesktop);
    const std::string config = desktop->dir_.file("bus.conf");
    const std::string bus = desktop->dir_.file("bus");
    std::ofstream(config) << bus_config(bus);
    desktop->run(desktop->bus_, {"dbus-daemon", "--nofork", "--config-file=" + config});
    desktop->run(desktop->pipewire_, {"pipewire"});
    if (!listening(*desktop->bus_, bus) ||
        !listening(*desktop->pipewire_, desktop->pipewire_socket())) {
        return nullptr;
    }
    desktop->run(desktop->session_manager_, {"wireplumber"});
    return desktop;
}

bool WaylandDesktop::start_portal(std::vector<std::string> behaviours) {
    behaviours.insert(behaviours.begin(), {OX_TEST_PORTAL, dir_.file("portal-report")});
    portal_.reset();
    std::filesystem::remove(dir_.file("portal-report"));
    run(portal_, std::move(behaviours));
    return report_.wait_for("ready", kStartLimit).has_value();
}

std::string WaylandDesktop::config_file(const std::string& name) const {
    std::filesystem::create_directories(std::filesystem::path(dir_.file(name)).parent_path());
    return dir_.file(name);
}

/// Starts a program and waits until it has its name on the bus.
bool WaylandDesktop::run_on_bus(std::unique_ptr<ChildProcess>& process, const std::string& program,
                                const std::string& name,
                                const std::vector<std::string>& environment) const {
    run(process, {program}, environment);
    DBusConnection* bus = dbus_connection_open_private(bus_address().c_str(), nullptr);
    if (bus == nullptr) return false;
    const bool owned = dbus_bus_register(bus, nullptr) == TRUE &&
                       eventually(
                           [&] {
                               return !process->running() ||
                                      dbus_bus_name_has_owner(bus, name.c_str(), nullptr) == TRUE;
                           },
                           kStartLimit);
    dbus_connection_close(bus);
    dbus_connection_unref(bus);
    return owned && process->running();
}

bool WaylandDesktop::start_sway(const std::string& colour, uint32_t width, uint32_t height) {
    const std::string config = sway_dir_.file("config");
    std::ofstream(config) << "output * resolution " << width << "x" << height << " bg " << colour
                          << " solid_color\n";
    std::ofstream(config_file("xdg-desktop-portal-wlr/config"))
        << "[screencast]\nchooser_type=none\noutput_name=HEADLESS-1\n";
    std::vector<std::string> argv{"sway", "-c", config};
    if (::geteuid() == 0) {  // which sway refuses
        if (::chown(sway_dir_.path().c_str(), kNobody, kNobody) != 0) return false;
        const std::string id = std::to_string(kNobody);
        argv.insert(argv.begin(), {"setpriv", "--reuid=" + id, "--regid=" + id, "--clear-groups",
                                   "--pdeathsig=KILL"});
    }
    const std::string folder = sway_dir_.path().string();
    run(sway_, argv,
        {"XDG_RUNTIME_DIR=" + folder, "HOME=" + folder, "WAYLAND_DISPLAY", "WLR_BACKENDS=headless",
         "WLR_RENDERER=pixman", "WLR_LIBINPUT_NO_DEVICES=1"});
    const std::string socket = sway_dir_.file("wayland-1");
    const std::vector<std::string> on_sway{"WAYLAND_DISPLAY=" + socket, "XDG_CURRENT_DESKTOP=sway"};
    return listening(*sway_, socket) &&
           run_on_bus(portal_backend_, "/usr/libexec/xdg-desktop-portal-wlr",
                      "org.freedesktop.impl.portal.desktop.wlr", on_sway) &&
           run_on_bus(portal_, "/usr/libexec/xdg-desktop-portal", "org.freedesktop.portal.Desktop",
                      on_sway);
}

}  // namespace ox::test
