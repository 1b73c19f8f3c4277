#pragma once

#include <string>
#include <vector>

#include "desktop/desktop.h"

namespace ox {

/// The cookies (MIT-MAGIC-COOKIE-1) that an authority file (Xauthority, xauth(1)) holds for this X
/// display of this machine. The host's name is not looked at: it may have changed since. Empty when
/// there is no such file or no such entry.
std::vector<XAuthorization> x_cookies(const std::string& path, int display);

}  // namespace ox
