#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "desktop/desktop.h"
#include "video/capture.h"

namespace ox {

enum class CaptureBackend {
    Auto,  ///< as the desktop needs it: the portal on Wayland, else X11
    X11,
    Portal,
    Synthetic,
};

constexpr const char* name_of(CaptureBackend backend) {
    switch (backend) {
        case CaptureBackend::Auto:
            return "auto";
        case CaptureBackend::X11:
            return "x11";
        case CaptureBackend::Portal:
            return "portal";
        case CaptureBackend::Synthetic:
            return "synthetic";
    }
    return nullptr;
}
std::optional<CaptureBackend> capture_backend_named(std::string_view name);

struct CaptureRequest {
    CaptureBackend backend = CaptureBackend::Auto;
    Desktop desktop{};
    uint32_t synthetic_width = 0;
    uint32_t synthetic_height = 0;
    /// May be empty. True ends every wait: at once for the owner's approval, within a second for an
    /// X server that hangs. Called from any thread for as long as the backend exists.
    std::function<bool()> cancelled{};
    /// May be empty. Called by `init` with true when the desktop asks the owner for approval, then
    /// with false when it no longer does.
    std::function<void(bool)> on_awaiting_owner{};
};

/// Whether the request goes through the desktop portal, which may ask the PC's owner.
[[nodiscard]] bool uses_portal(const CaptureRequest& request);

std::unique_ptr<ICapture> make_capture(const CaptureRequest& request);

}  // namespace ox
