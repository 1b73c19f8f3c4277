#pragma once

#include <functional>
#include <vector>

#include "base/clock.h"
#include "desktop/desktop.h"

namespace ox {

/// Numbers of the X displays of this machine whose servers run as this user or as root, as display
/// managers start them; ascending.
std::vector<int> local_x_displays();

/// A connection to the X server of this display that lets a client in which says this of itself.
/// None when it does not, when there is no server, or when it does not answer before `deadline` or
/// until `cancelled`, asked every 50 ms, returns true; it may be empty. Unlike XOpenDisplay, says
/// nothing on the standard error and does not wait for ever.
UniqueFd enter_x_server(int display, const XAuthorization& authorization,
                        SteadyClock::time_point deadline, const std::function<bool()>& cancelled);

/// The same for a display that nobody has named, so that it has to be this user's. A server that
/// runs as root may be another user's, and let in everybody on this machine. It is taken for this
/// user's when a cookie opens it that nobody is let in without; where everybody is, its access list
/// has to name this user besides (xhost(1), "localuser").
UniqueFd enter_own_x_server(int display, const XAuthorization& authorization,
                            SteadyClock::time_point deadline,
                            const std::function<bool()>& cancelled);

}  // namespace ox
