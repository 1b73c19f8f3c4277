#include <cstdlib>
#include <string_view>
#include <utility>

#include "video/capture.h"
#include "video/portal/portal_capture.h"
#include "video/synthetic_capture.h"
#include "video/x11_capture.h"

namespace ox {
namespace {

std::string_view environment(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr ? value : "";
}

bool on_wayland() {
    const std::string_view session = environment("XDG_SESSION_TYPE");
    return session == "wayland" || (session != "x11" && !environment("WAYLAND_DISPLAY").empty());
}

}  // namespace

std::unique_ptr<ICapture> make_capture(const std::string& mode, const std::string& display,
                                       uint32_t width, uint32_t height,
                                       std::function<bool()> cancelled) {
    if (mode == "synthetic") return std::make_unique<SyntheticCapture>(width, height);
    if (mode == "portal" || (mode == "auto" && on_wayland())) {
        auto config = PortalCapture::config_from_environment();
        config.cancelled = std::move(cancelled);
        return std::make_unique<PortalCapture>(std::move(config));
    }
    return std::make_unique<X11Capture>(display);
}

}  // namespace ox
