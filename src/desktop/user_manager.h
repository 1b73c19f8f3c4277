#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ox {

/// The environment of the user's service manager ("NAME=value"), into which desktops put what the
/// programs of their session need (systemd, org.freedesktop.systemd1.Manager, property
/// "Environment"). Empty when there is no session bus or no such manager on it. Blocks for at most
/// twice `limit`, and no longer than 50 ms once `cancelled`, which may be empty, returns true.
std::vector<std::string> user_manager_environment(std::chrono::milliseconds limit,
                                                  std::function<bool()> cancelled);

}  // namespace ox
