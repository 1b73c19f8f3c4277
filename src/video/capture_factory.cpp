#include "video/capture_factory.h"

#include <array>

#include "video/portal/portal_capture.h"
#include "video/synthetic_capture.h"
#include "video/x11_capture.h"

namespace ox {
namespace {

constexpr std::array kBackends{CaptureBackend::Auto, CaptureBackend::X11, CaptureBackend::Portal,
                               CaptureBackend::Synthetic};
static_assert(name_of(CaptureBackend{kBackends.size()}) == nullptr, "kBackends has every backend");

CaptureBackend resolve(const CaptureRequest& request) {
    if (request.backend != CaptureBackend::Auto) return request.backend;
    return request.desktop.is_wayland() ? CaptureBackend::Portal : CaptureBackend::X11;
}

std::unique_ptr<ICapture> make_portal_capture(const CaptureRequest& request) {
    auto config = PortalCapture::config_from_environment();
    if (!request.desktop.wayland_display.empty()) {
        config.wayland_display = request.desktop.wayland_display;
    }
    config.cancelled = request.cancelled;
    config.on_awaiting_owner = request.on_awaiting_owner;
    return std::make_unique<PortalCapture>(std::move(config));
}

}  // namespace

std::optional<CaptureBackend> capture_backend_named(std::string_view name) {
    for (const CaptureBackend backend : kBackends)
        if (name == name_of(backend)) return backend;
    return std::nullopt;
}

bool uses_portal(const CaptureRequest& request) {
    return resolve(request) == CaptureBackend::Portal;
}

std::unique_ptr<ICapture> make_capture(const CaptureRequest& request) {
    switch (resolve(request)) {
        case CaptureBackend::Synthetic:
            return std::make_unique<SyntheticCapture>(request.synthetic_width,
                                                      request.synthetic_height);
        case CaptureBackend::Portal:
            return make_portal_capture(request);
        case CaptureBackend::X11:
        case CaptureBackend::Auto:
            break;
    }
    return std::make_unique<X11Capture>(request.desktop.display,
                                        request.desktop.x_access.authorization, request.cancelled);
}

}  // namespace ox
