#include "app/session/capture_selection.h"

#include <utility>

#include "desktop/desktop_search.h"
#include "log/log.h"
#include "tui/board/board.h"

namespace ox {
namespace {

using tui::CaptureTrouble;

CaptureTrouble trouble_behind(CaptureState state) {
    if (state == CaptureState::OwnerDeclined) return CaptureTrouble::Declined;
    if (state == CaptureState::OwnerAbsent) return CaptureTrouble::Unanswered;
    return CaptureTrouble::NoPicture;
}

}  // namespace

Desktop desktop_for(const Options& options, const std::function<bool()>& cancelled) {
    Desktop desktop = desktop_of_environment(options.display);
    // A backend that was chosen by name uses what was named with it.
    if (options.capture != CaptureBackend::Auto || desktop.has_screen()) return desktop;
    desktop = search_desktop(options.display, cancelled);
    if (desktop.has_screen()) OX_INFO("Session: desktop found: %s", describe(desktop).c_str());
    return desktop;
}

SelectedCapture select_capture(const CaptureRequest& request) {
    CaptureState why = CaptureState::Gone;
    const auto try_backend = [&](CaptureBackend backend) -> std::unique_ptr<ICapture> {
        CaptureRequest attempt = request;
        attempt.backend = backend;
        auto capture = make_capture(attempt);
        if (!capture->init()) {
            if (backend == request.backend) why = capture->state();
            return nullptr;
        }
        OX_INFO("Session: capture backend = %s", name_of(backend));
        return capture;
    };

    auto capture = try_backend(request.backend);
    if (capture) {
        tui::board().clear(tui::Alert::CaptureFailed);
        return {.capture = std::move(capture)};
    }
    if (request.cancelled && request.cancelled()) return {};
    const CaptureTrouble trouble = trouble_behind(why);
    switch (request.backend) {
        case CaptureBackend::Auto:
            OX_WARN("Session: automatic capture unavailable — falling back to synthetic");
            tui::board().raise_capture(trouble);
            capture = try_backend(CaptureBackend::Synthetic);
            break;
        case CaptureBackend::Portal:
            OX_WARN("Session: portal capture failed — falling back to X11");
            capture = try_backend(CaptureBackend::X11);
            if (!capture) capture = try_backend(CaptureBackend::Synthetic);
            break;
        case CaptureBackend::X11:
        case CaptureBackend::Synthetic:
            break;
    }
    if (!capture) {
        OX_ERROR("Session: capture init failed (%s)", name_of(request.backend));
        tui::board().raise_capture(trouble);
    }
    return {.capture = std::move(capture), .not_approved = trouble != CaptureTrouble::NoPicture};
}

}  // namespace ox
