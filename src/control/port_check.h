#pragma once

#include <cstdint>

namespace ox {

/// 0 when `TcpControlServer` could have this TCP port, else the errno that tells why not
/// (EADDRINUSE: somebody listens there). Takes the port for a moment.
int tcp_port_error(uint16_t port);

}  // namespace ox
