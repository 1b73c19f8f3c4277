#pragma once

#include <functional>
#include <string>

#include "desktop/desktop.h"

namespace ox {

/// The desktop of this process's environment, `display` (may be empty) in place of its X display.
Desktop desktop_of_environment(const std::string& display);

/// The same when the environment or `display` names one; else the desktop that is there now. Blocks
/// for a few milliseconds, and for 3 s at most when servers do not answer; `cancelled`, which may
/// be empty, ends every wait within 50 ms once it returns true.
Desktop look_for_desktop(const std::string& display, std::function<bool()> cancelled);

/// Whether the session bus is there.
bool session_bus_listens();

}  // namespace ox
