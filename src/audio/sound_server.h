#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace ox {

/// Address of the user's sound server at this moment, for a process that was started outside of the
/// user's session; empty when libpulse finds the server by itself, or there is none.
std::string sound_server_address();

/// Environment variables ("NAME=value") for a child that talks to the sound server.
std::vector<std::string> sound_server_environment();

/// Whether a server answers in time, `cancelled` being polled every 50 ms. Does not start one.
bool sound_server_answers(std::chrono::milliseconds limit, const std::function<bool()>& cancelled);

}  // namespace ox
