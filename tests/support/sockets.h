#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "base/unique_fd.h"

namespace ox::test {

/// `port` of this machine, at 127.0.0.`host`.
inline sockaddr_in loopback(uint16_t port, uint32_t host = 1) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK - 1 + host);
    return address;
}

/// A socket on `port` of this machine (0: any), at 127.0.0.`host`; one of SOCK_STREAM listens. None
/// when the port is taken.
inline UniqueFd bound_socket(int type, uint16_t port, uint32_t host = 1) {
    UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const int on = type == SOCK_STREAM ? 1 : 0;  // old connections of the port may still time out
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = loopback(port, host);
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    if (::bind(fd.get(), at, sizeof address) != 0) return {};
    if (type == SOCK_STREAM && ::listen(fd.get(), 16) != 0) return {};
    return fd;
}

inline uint16_t port_of(const UniqueFd& socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

}  // namespace ox::test
