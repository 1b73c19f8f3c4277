#pragma once

#include <string_view>

// What the control channel asks of its connected TCP socket. The descriptors are borrowed.

namespace ox {

/// Small lines leave at once; a launcher that vanished without a word is noticed within 30 s.
void tune_client_socket(int fd);

/// The error number the connection has met with so far (0: none); taken off the socket.
int take_pending_error(int fd);

/// Sends all of `bytes`, within 5 s: a launcher that does not read must not hold the writer. False
/// on any error; one that leaves a part of them sent also shuts the connection down, since the next
/// line would be spoilt. `shutdown` from another thread ends the wait.
bool send_whole(int fd, std::string_view bytes);

}  // namespace ox
