#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ox {

/// Where the user's sound server listens, when libpulse would not find that out by itself because
/// this process was started outside of the user's session; else empty. Of the moment.
std::string sound_server_address();

/// What is added to the environment of a child that talks to the sound server ("NAME=value").
std::vector<std::string> sound_server_environment();

/// Whether a sound server answers within `limit` and until `cancelled`, asked every 50 ms, returns
/// true. Starts none.
bool sound_server_answers(std::chrono::milliseconds limit, const std::function<bool()>& cancelled);

}  // namespace ox
