#pragma once

#include <functional>
#include <string>

#include "desktop/desktop.h"

namespace ox {

/// The desktop of this process's environment; a non-empty `display` overrides its X display.
Desktop desktop_of_environment(const std::string& display);

/// Else the one that is running. Blocks for a few milliseconds, at most 3 s when servers do not
/// answer; `cancelled` (may be empty) ends every wait within 50 ms.
Desktop search_desktop(const std::string& display, std::function<bool()> cancelled);

bool session_bus_listens();

}  // namespace ox
