#pragma once

#include <chrono>
#include <string>

namespace ox {

/// What the sound server says of the output that programs play on.
struct DefaultOutput {
    bool server = false;    ///< one answers
    std::string monitor{};  ///< what records the output; empty: there is no output, or nothing does
    bool muted = false;
};

/// Waits no longer than `limit`, starts no server and records nothing.
DefaultOutput read_default_output(std::chrono::milliseconds limit);

}  // namespace ox
