#pragma once

#include <functional>
#include <memory>
#include <string>

#include "app/options.h"
#include "desktop/desktop.h"
#include "video/capture.h"

namespace ox {

/// The desktop that a session is to show: what the command line or the environment names, else,
/// with automatic capture, what is there now (logged), else none. `cancelled` ends the look-up
/// early.
Desktop desktop_for(const Options& options, const std::function<bool()>& cancelled);

/// What `select_capture` found.
struct SelectedCapture {
    std::unique_ptr<ICapture> capture;  ///< null when nothing works
    bool not_approved = false;  ///< it stands in for a screen that the owner has not approved
};

/// Makes and initialises the capture backend for `mode`, with the fallbacks of that mode: "auto"
/// falls back to the synthetic picture (and raises the board's alert), "portal" to X11 and then to
/// the synthetic picture. Null, after an error line and the alert, when nothing works. Null too,
/// without either, once `cancelled` returns true: it ends a wait for the user's approval, of which
/// `awaiting_owner` is told.
SelectedCapture select_capture(const std::string& mode, const Desktop& desktop, uint32_t width,
                               uint32_t height, const std::function<bool()>& cancelled,
                               const std::function<void(bool)>& awaiting_owner = {});

}  // namespace ox
