#pragma once

#include <chrono>
#include <string>

#include "video/portal/restore_token.h"

namespace ox {

/// What the desktop portal would do if a session asked it for the screen now.
enum class PortalAnswer {
    Missing,     ///< no session bus, no portal on it, or one without screens
    Asks,        ///< it would show a dialog to the PC's owner
    KnowsToken,  ///< the saved answer serves, nobody is asked
};

/// Finds that out without asking for the screen: no dialog opens, and the saved token stays as it
/// is. `bus_address` may be empty for the session bus of the environment. Each of the few questions
/// waits no longer than `limit`; the portal may be started by the first, as by a session.
PortalAnswer probe_portal(const std::string& bus_address, const RestoreTokenFile& token_file,
                          std::chrono::milliseconds limit);

}  // namespace ox
