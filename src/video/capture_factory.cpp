#include <utility>

#include "desktop/desktop_search.h"
#include "video/capture.h"
#include "video/portal/portal_capture.h"
#include "video/synthetic_capture.h"
#include "video/x11_capture.h"

namespace ox {

bool asks_the_portal(const std::string& mode, const Desktop& desktop) {
    return mode == "portal" || (mode == "auto" && desktop.is_wayland());
}

std::unique_ptr<ICapture> make_capture(const std::string& mode, const Desktop& desktop,
                                       uint32_t width, uint32_t height,
                                       std::function<bool()> cancelled,
                                       std::function<void(bool)> awaiting_owner) {
    if (mode == "synthetic") return std::make_unique<SyntheticCapture>(width, height);
    if (asks_the_portal(mode, desktop)) {
        auto config = PortalCapture::config_from_environment();
        if (!desktop.wayland_display.empty()) config.wayland_display = desktop.wayland_display;
        config.cancelled = std::move(cancelled);
        config.awaiting_owner = std::move(awaiting_owner);
        return std::make_unique<PortalCapture>(std::move(config));
    }
    return std::make_unique<X11Capture>(desktop.display, desktop.x_access.authorization,
                                        std::move(cancelled));
}

std::unique_ptr<ICapture> make_capture(const std::string& mode, const std::string& display,
                                       uint32_t width, uint32_t height,
                                       std::function<bool()> cancelled) {
    return make_capture(mode, desktop_of_environment(display), width, height, std::move(cancelled));
}

}  // namespace ox
