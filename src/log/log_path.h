#pragma once

#include <string>

namespace ox {

// These read the environment: call them at start-up only.

/// `OX_LOG_FILE`, else next to the program when that folder is writable, else `state_log_path`.
std::string default_log_path();

/// Below `XDG_STATE_HOME` when absolute, else "~/.local/state", else "/tmp". Missing folders are
/// made, mode 0700; a failure shows when a file is opened.
std::string state_folder();

std::string state_log_path();

/// Name of rotation slot `n` of `path`: "agent.log" with 1 is "agent.1.log", "agent" is "agent.1".
std::string rotated_log_name(const std::string& path, int n);

}  // namespace ox
