#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace ox::test {

/// For a peer that disappears silently, as with a pulled cable: checks that the kernel ends this
/// process's one connection to (`is_remote`) or from the port within half a minute, and within
/// `in_flight_ms` while data is unacknowledged.
inline void expect_vanished_peer_is_noticed(uint16_t port, bool is_remote, int in_flight_ms) {
    int connections = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        sockaddr_in other{};
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&other), &size) != 0) continue;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
        if (ntohs((is_remote ? other : address).sin_port) != port) continue;
        ++connections;
        const auto option = [fd](int level, int name) {
            int value = 0;
            socklen_t length = sizeof value;
            ::getsockopt(fd, level, name, &value, &length);
            return value;
        };
        EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_LE(option(IPPROTO_TCP, TCP_KEEPIDLE) +
                      option(IPPROTO_TCP, TCP_KEEPINTVL) * option(IPPROTO_TCP, TCP_KEEPCNT),
                  30);
        EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), in_flight_ms);
    }
    EXPECT_EQ(connections, 1);
}

}  // namespace ox::test
