#pragma once

#include <string>

#include "video/diagnosis.h"

namespace ox {

/// What is found out about an X display that cannot be opened.
struct DisplayFacts {
    enum class Server {
        NotNamed,   ///< no display was given or found
        Elsewhere,  ///< not a display of this PC, or no display's name
        Absent,     ///< nobody listens
        Listening,  ///< a server takes connections, so it refused ours
    };
    Server server = Server::NotNamed;
    std::string name;
    std::string authority;  ///< path of the file that holds the keys of displays
    bool authority_readable = false;
};

/// Knocks at the server of `display` (empty for `$DISPLAY`) and looks for the authority file.
/// Never blocks.
DisplayFacts read_display_facts(const std::string& display);

Diagnosis diagnose(const DisplayFacts& facts);

}  // namespace ox
