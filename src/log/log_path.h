#pragma once

#include <string>

namespace ox {

// These read the environment: call them at start-up only.

/// The agent's log file: `OX_LOG_FILE`, else next to the program when that folder is writable, else
/// `state_log_path`.
std::string default_log_path();

/// The agent's own folder below the state directory, which is `XDG_STATE_HOME` when absolute, else
/// "~/.local/state", else "/tmp". Creates missing folders, readable by their owner only; a failure
/// shows when a file in it is opened.
std::string state_folder();

/// The log file in `state_folder`.
std::string state_log_path();

/// Name of rotation slot `n` of `path`: "agent.log" with 1 is "agent.1.log", "agent" is "agent.1".
std::string rotated_log_name(const std::string& path, int n);

}  // namespace ox
