#pragma once

#include <functional>
#include <memory>

#include "app/options.h"
#include "desktop/desktop.h"
#include "video/capture_factory.h"

namespace ox {

/// What the command line or the environment names; with automatic capture, what is found now.
Desktop desktop_for(const Options& options, const std::function<bool()>& cancelled);

struct SelectedCapture {
    std::unique_ptr<ICapture> capture;  ///< null when nothing works
    bool not_approved = false;          ///< it replaces a screen that the owner has not approved
};

/// The requested capture or, after an alert, a fallback: `Auto` the synthetic picture, `Portal` X11
/// and then that. Null, after an error line and the alert, when nothing works, or once cancelled.
SelectedCapture select_capture(const CaptureRequest& request);

}  // namespace ox
