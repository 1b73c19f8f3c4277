#include "support/wayland_desktop.h"

#include <unistd.h>
#include <wayland-server.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/eventually.h"
#include "support/sockets.h"

namespace ox::test {

namespace {

constexpr std::chrono::seconds kStartLimit{30};

bool listening(ChildProcess& process, const std::string& socket) {
    return eventually([&] { return !process.running() || connect_unix(socket).is_open(); },
                      kStartLimit) &&
           process.running();
}

// Without service folders: only what is started here runs.
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

void WaylandDesktop::run(std::unique_ptr<ChildProcess>& process, std::vector<std::string> argv) {
    process.reset();
    process = std::make_unique<ChildProcess>(
        ChildProcess::Options{.argv = std::move(argv), .environment = environment()});
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
    // Its own settings: by default it fails to start without other services.
    std::filesystem::create_directory_symlink(OX_TEST_WIREPLUMBER,
                                              desktop->dir_.file("wireplumber"));
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

WaylandCompositor::WaylandCompositor(const std::string& socket) : display_(wl_display_create()) {
    const auto bound = [](wl_client* client, void* self, uint32_t version, uint32_t id) {
        auto* const compositor = static_cast<WaylandCompositor*>(self);
        compositor->monitor_ =
            wl_resource_create(client, &wl_output_interface, static_cast<int>(version), id);
        compositor->send_settings();
        ++compositor->watchers_;
    };
    ::unlink(socket.c_str());
    wl_global_create(display_, &wl_output_interface, 2, this, bound);
    if (wl_display_add_socket_fd(display_, listen_unix(socket).release()) != 0) {
        wl_display_destroy(display_);
        throw std::runtime_error("no socket for the compositor");
    }
    thread_ = std::thread([this] { run(); });
}

WaylandCompositor::~WaylandCompositor() {
    end_ = true;
    thread_.join();
    wl_display_destroy_clients(display_);
    wl_display_destroy(display_);
}

void WaylandCompositor::run() {
    constexpr int kSliceMs = 10;
    while (!end_) {
        wl_event_loop_dispatch(wl_display_get_event_loop(display_), kSliceMs);
        if (turn_.exchange(false)) {
            send_settings();
            transform_ = WL_OUTPUT_TRANSFORM_90;
            send_settings();
        }
        wl_display_flush_clients(display_);
    }
}

void WaylandCompositor::send_settings() const {
    wl_output_send_geometry(monitor_, 0, 0, 0, 0, WL_OUTPUT_SUBPIXEL_UNKNOWN, "", "", transform_);
    wl_output_send_mode(monitor_, WL_OUTPUT_MODE_CURRENT, 320, 180, 60'000);
    wl_output_send_done(monitor_);
}

}  // namespace ox::test
