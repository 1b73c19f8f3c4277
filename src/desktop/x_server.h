#pragma once

#include <vector>

#include "base/clock.h"
#include "desktop/desktop.h"

namespace ox {

/// Numbers of the X displays of this machine whose servers run as this user or as root, as display
/// managers start them; ascending.
std::vector<int> local_x_displays();

/// A connection to the X server of this display that lets a client in which says this of itself.
/// None when it does not, when there is no server, or when it does not answer before `deadline`.
/// Unlike XOpenDisplay, says nothing on the standard error and does not wait for ever.
UniqueFd enter_x_server(int display, const XAuthorization& authorization,
                        SteadyClock::time_point deadline);

}  // namespace ox
