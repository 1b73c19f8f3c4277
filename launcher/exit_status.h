#pragma once

#include <cstdint>

namespace ox::launcher {

/// How a run ended, and the program's exit status.
enum class ExitStatus : uint8_t {
    Ok = 0,
    Failed = 1,       ///< a local failure: port taken, file not writable
    Usage = 2,        ///< the command line
    Refused = 3,      ///< nothing accepts connections at the address
    Rejected = 4,     ///< the agent closed the connection after the auth line
    TimedOut = 5,     ///< no answer to the auth line, no media, or media that stopped
    Undecodable = 6,  ///< media came, but no picture could be decoded
    AgentEnded = 7,   ///< the agent closed the session before this side did
};

/// One lower-case word for `status`, as it stands in the summary.
const char* exit_status_name(ExitStatus status);

}  // namespace ox::launcher
