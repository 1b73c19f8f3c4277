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
    // A way of capture that was asked for by name takes what was named with it.
    if (options.capture != "auto" || desktop.has_screen()) return desktop;
    desktop = search_desktop(options.display, cancelled);
    if (desktop.has_screen()) OX_INFO("Session: desktop found: %s", describe(desktop).c_str());
    return desktop;
}

SelectedCapture select_capture(const std::string& mode, const Desktop& desktop, uint32_t width,
                               uint32_t height, const std::function<bool()>& cancelled,
                               const std::function<void(bool)>& awaiting_owner) {
    CaptureState why = CaptureState::Gone;
    const auto try_mode = [&](const std::string& name) -> std::unique_ptr<ICapture> {
        auto capture = make_capture(name, desktop, width, height, cancelled, awaiting_owner);
        if (!capture->init()) {
            if (name == mode) why = capture->state();
            return nullptr;
        }
        OX_INFO("Session: capture backend = %s", name.c_str());
        return capture;
    };

    auto capture = try_mode(mode);
    if (capture) {
        tui::board().clear(tui::Alert::CaptureFailed);
        return {.capture = std::move(capture)};
    }
    if (cancelled()) return {};
    const CaptureTrouble trouble = trouble_behind(why);
    if (mode == "auto") {
        OX_WARN("Session: automatic capture unavailable — falling back to synthetic");
        tui::board().raise_capture(trouble);
        capture = try_mode("synthetic");
    } else if (mode == "portal") {
        OX_WARN("Session: portal capture failed — falling back to X11");
        capture = try_mode("x11");
        if (!capture) capture = try_mode("synthetic");
    }
    if (!capture) {
        OX_ERROR("Session: capture init failed (%s)", mode.c_str());
        tui::board().raise_capture(trouble);
    }
    return {.capture = std::move(capture), .not_approved = trouble != CaptureTrouble::NoPicture};
}

}  // namespace ox
