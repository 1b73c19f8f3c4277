#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "desktop/desktop.h"

// Connections to the X servers of this machine. Unlike XOpenDisplay, these functions print nothing
// and end: at `deadline`, or within 50 ms once `cancelled`, which may be empty, returns true.

namespace ox {

/// This display's MIT-MAGIC-COOKIE-1 entries of an authority file (Xauthority, xauth(1)). The host
/// name is ignored: it may have changed since.
std::vector<XAuthorization> x_cookies(const std::string& path, int display);

/// Whose servers run as this user or as root (as display managers start them), ascending.
std::vector<int> local_x_displays();

/// None when the server refuses, does not answer or does not exist.
UniqueFd connect_x_server(int display, const XAuthorization& authorization,
                          SteadyClock::time_point deadline, const std::function<bool()>& cancelled);

/// The same for a display that was not configured, and has to be proven to be this user's: a server
/// that runs as root may be another user's and admit every local user. It is this user's if a
/// cookie is required and accepted; where none is, its access list must name this user (xhost(1)).
UniqueFd connect_own_x_server(int display, const XAuthorization& authorization,
                              SteadyClock::time_point deadline,
                              const std::function<bool()>& cancelled);

}  // namespace ox
