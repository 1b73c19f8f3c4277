#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/unique_fd.h"

// IPv4 TCP sockets of the control channel. Descriptors passed as int are borrowed.

namespace ox {

/// Opens a non-blocking listener on all addresses. Returns 0, or errno after an error line.
int open_listener(uint16_t port, UniqueFd& listener);

/// 0, or the errno with which `open_listener` would fail. Binds the port for a moment.
int tcp_port_error(uint16_t port);

/// Disables Nagle's algorithm; a peer that vanishes silently is noticed within 30 s.
void tune_client_socket(int fd);

/// Takes the pending error (SO_ERROR) off the socket; 0: none.
int take_pending_error(int fd);

enum class WaitResult : uint8_t { readable, timed_out, aborted, failed };

/// The wait also ends at the end of the stream, at the deadline (to a millisecond), on an error,
/// and once `abort` (may be empty, asked every 100 ms) is true.
WaitResult wait_readable(int fd, SteadyClock::time_point deadline,
                         const std::function<bool()>& abort);

/// All of it, within 5 s. False on any error; after a partial send also shuts the connection down,
/// as the next line would be corrupt. `shutdown` from another thread ends the wait.
bool send_all(int fd, std::string_view bytes);

}  // namespace ox
