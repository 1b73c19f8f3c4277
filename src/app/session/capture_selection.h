#pragma once

#include <functional>
#include <memory>
#include <string>

#include "video/capture.h"

namespace ox {

/// Makes and initialises the capture backend for `mode`, with the fallbacks of that mode: "auto"
/// falls back to the synthetic picture (and raises the board's alert), "portal" to X11 and then to
/// the synthetic picture. Null, after an error line and the alert, when nothing works. Null too,
/// without either, once `cancelled` returns true: it ends a wait for the user's approval.
std::unique_ptr<ICapture> select_capture(const std::string& mode, const std::string& display,
                                         uint32_t width, uint32_t height,
                                         const std::function<bool()>& cancelled);

}  // namespace ox
