#pragma once

#include <string>

namespace ox {

/// Where the agent logs: `OX_LOG_FILE`, else next to the program when that folder is writable, else
/// below the state directory (created on the way). Reads the environment: call at start-up only.
std::string default_log_path();

/// The agent's own folder below the state directory, which is `XDG_STATE_HOME` when absolute, else
/// "~/.local/state", else "/tmp". Creates the folders on the way, readable by their owner only;
/// failures are left to the opening of a file in it. Reads the environment: call at start-up only.
std::string state_folder();

/// The log file in `state_folder`.
std::string state_log_path();

/// Name of rotation slot `n` of `path`: "agent.log" with 1 is "agent.1.log", "agent" is "agent.1".
std::string rotated_log_name(const std::string& path, int n);

}  // namespace ox
