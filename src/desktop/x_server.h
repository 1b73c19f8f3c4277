#pragma once

#include <functional>
#include <string>
#include <vector>

#include "base/clock.h"
#include "desktop/desktop.h"

// Connections to the X servers of this machine. Unlike XOpenDisplay, these functions print nothing
// and end: at `deadline`, or within 50 ms once `cancelled`, which may be empty, returns true.

namespace ox {

/// MIT-MAGIC-COOKIE-1 entries of an authority file (Xauthority, xauth(1)). The host name is
/// ignored: it may have changed since.
std::vector<XAuthorization> x_cookies(const std::string& path, int display);

/// Whose servers run as this user or as root (as display managers start them), ascending.
std::vector<int> local_x_displays();

/// None when the server refuses, does not answer or does not exist.
UniqueFd connect_x_server(int display, const XAuthorization& authorization,
                          SteadyClock::time_point deadline, const std::function<bool()>& cancelled);

/// For a display that was not configured: it must be proven to be this user's, as a root's server
/// may be another user's and admit everybody. A cookie is required and accepted, or the access list
/// also names this user (xhost(1), "localuser").
UniqueFd connect_own_x_server(int display, const XAuthorization& authorization,
                              SteadyClock::time_point deadline,
                              const std::function<bool()>& cancelled);

}  // namespace ox
