#pragma once

#include <string>
#include <thread>

namespace ox {

/// Path of the local stop channel: in `XDG_RUNTIME_DIR`, else in /tmp with the user's id.
std::string panic_socket_path();

/// Starts the thread that listens for "stop" on the local channel and sets the panic flag. It ends
/// within about 200 ms of a stop request. Without a socket it only logs a warning.
std::jthread start_panic_listener();

}  // namespace ox
