#pragma once

#include <cstdint>

namespace ox {

/// Whether nobody listens on this TCP port, so that `TcpControlServer` could. Takes it for a
/// moment.
bool tcp_port_is_free(uint16_t port);

}  // namespace ox
