#pragma once

#include <vector>

#include "base/clock.h"
#include "desktop/desktop.h"

namespace ox {

/// Numbers of the X displays of this machine whose servers run as this user or as root, as display
/// managers start them; ascending.
std::vector<int> local_x_displays();

/// Whether the X server of this display lets a client in that says this of itself. False too when
/// there is none, or when it does not answer before `deadline`. Unlike XOpenDisplay, says nothing
/// on the standard error and does not wait for ever.
bool x_server_admits(int display, const XAuthorization& authorization,
                     SteadyClock::time_point deadline);

}  // namespace ox
