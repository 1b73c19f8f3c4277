#include "support/wayland_compositor.h"

#include <unistd.h>
#include <wayland-server.h>

#include <stdexcept>

#include "support/sockets.h"

namespace ox::test {

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
