#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "desktop/desktop.h"

// Connections to the X servers of this machine. Unlike XOpenDisplay, these functions print nothing
// and end: at `deadline`, or within 50 ms once `cancelled`, which may be empty, returns true.

namespace ox {

/// The cookies (MIT-MAGIC-COOKIE-1) for this local X display in an authority file (Xauthority,
/// xauth(1)). The host name is ignored: it may have changed since. Empty when there is no such file
/// or entry.
std::vector<XAuthorization> x_cookies(const std::string& path, int display);

/// Numbers of the local X displays whose servers run as this user or as root (as display managers
/// start them), ascending.
std::vector<int> local_x_displays();

/// A connection that the X server of this display has admitted with these credentials; none when it
/// refuses, does not answer or does not exist.
UniqueFd connect_x_server(int display, const XAuthorization& authorization,
                          SteadyClock::time_point deadline, const std::function<bool()>& cancelled);

/// The same for a display that was not configured, so that it must be proven to be this user's: a
/// server that runs as root may be another user's, and admit every local user. It is this user's
/// if a cookie is required and accepted; where none is required, its access list must also name
/// this user (xhost(1), "localuser").
UniqueFd connect_own_x_server(int display, const XAuthorization& authorization,
                              SteadyClock::time_point deadline,
                              const std::function<bool()>& cancelled);

}  // namespace ox
