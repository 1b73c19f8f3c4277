#pragma once

#include <functional>
#include <memory>

#include "app/options.h"
#include "desktop/desktop.h"
#include "video/capture_factory.h"

namespace ox {

/// The desktop that a session is to show: what the command line or the environment names, else,
/// with automatic capture, what is found now (logged), else none. `cancelled` ends the search.
Desktop desktop_for(const Options& options, const std::function<bool()>& cancelled);

struct SelectedCapture {
    std::unique_ptr<ICapture> capture;  ///< null when nothing works
    bool not_approved = false;          ///< it replaces a screen that the owner has not approved
};

/// Makes and initialises the requested capture, or a fallback: for `Auto` the synthetic picture
/// (with the board's alert), for `Portal` X11 and then the synthetic picture. Null, after an error
/// line and the alert, when nothing works; null without either once cancelled.
SelectedCapture select_capture(const CaptureRequest& request);

}  // namespace ox
