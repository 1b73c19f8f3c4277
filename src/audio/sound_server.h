#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace ox {

/// Where the user's sound server listens, when libpulse would not find that out by itself because
/// this process was started outside of the user's session; else empty. Of the moment.
std::string sound_server_address();

/// What is added to the environment of a child that talks to the sound server ("NAME=value").
std::vector<std::string> sound_server_environment();

/// Whether a sound server answers within `limit`. Starts none.
bool sound_server_answers(std::chrono::milliseconds limit);

}  // namespace ox
