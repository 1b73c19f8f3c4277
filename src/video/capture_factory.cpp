#include <cstdlib>
#include <string_view>

#include "log/log.h"
#include "video/capture.h"
#include "video/synthetic_capture.h"
#include "video/x11_capture.h"

namespace ox {
namespace {

/// Stands for the desktop portal where the build has no client for it: says so and fails, so that
/// the caller's fallbacks apply.
class PortalCapture final : public ICapture {
  public:
    bool init() override {
        OX_ERROR("PortalCapture: this build has no desktop-portal capture");
        return false;
    }
    int capture_frame(CapturedFrame& /*frame*/) override { return 1; }
    [[nodiscard]] uint32_t width() const override { return 0; }
    [[nodiscard]] uint32_t height() const override { return 0; }
};

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
                                       uint32_t width, uint32_t height) {
    if (mode == "synthetic") return std::make_unique<SyntheticCapture>(width, height);
    if (mode == "portal" || (mode == "auto" && on_wayland())) {
        return std::make_unique<PortalCapture>();
    }
    return std::make_unique<X11Capture>(display);
}

}  // namespace ox
