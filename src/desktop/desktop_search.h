#pragma once

#include <functional>
#include <string>

#include "desktop/desktop.h"

namespace ox {

/// The desktop of this process's environment; a non-empty `display` overrides its X display.
Desktop desktop_of_environment(const std::string& display);

/// The same when that names a desktop, else the one that is running. Blocks for a few milliseconds,
/// and for at most 3 s when servers do not answer; `cancelled`, which may be empty, ends every wait
/// within 50 ms once it returns true.
Desktop search_desktop(const std::string& display, std::function<bool()> cancelled);

/// Whether the session bus accepts connections.
bool session_bus_listens();

}  // namespace ox
