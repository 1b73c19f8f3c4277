#pragma once

#include <string>
#include <thread>

namespace ox {

/// Path of the local stop channel: in `XDG_RUNTIME_DIR`, else in /tmp with the user's id.
std::string panic_socket_path();

/// "stop" on the local channel sets the panic flag. Ends within about 200 ms of a stop request.
std::jthread start_panic_listener();

}  // namespace ox
