#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>

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

/// A socket bound to `port` (0: any) of 127.0.0.`host`; SOCK_STREAM also listens. None when the
/// port is taken.
inline UniqueFd bound_socket(int type, uint16_t port, uint32_t host = 1) {
    UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const int on = type == SOCK_STREAM ? 1 : 0;  // the port may have connections in TIME_WAIT
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

/// A stream socket that `attach` binds or connects to `path`; none where that fails.
inline UniqueFd unix_socket(const std::string& path,
                            int (*attach)(int, const sockaddr*, socklen_t)) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof address.sun_path) return {};
    path.copy(address.sun_path, path.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    if (attach(fd.get(), at, sizeof address) != 0) fd.reset();
    return fd;
}

/// A connection to the stream socket at `path`; none without a listener.
inline UniqueFd connect_unix(const std::string& path) {
    return unix_socket(path, ::connect);
}

/// A stream socket at `path` that accepts connections and sends nothing.
inline UniqueFd listen_unix(const std::string& path) {
    UniqueFd fd = unix_socket(path, ::bind);
    ::listen(fd.get(), 16);
    return fd;
}

/// Six consecutive free ports for TCP and UDP, below the kernel's ephemeral range. No other test on
/// this machine gets the same ones meanwhile.
class PortBlock {
  public:
    /// Throws std::runtime_error when nothing is free.
    PortBlock() {
        std::random_device random;
        for (int attempt = 0; attempt < 200; ++attempt) {
            base_ = static_cast<uint16_t>(20'000 + 8 * (random() % 1500));
            // The next port marks the block as taken.
            reservation_ = bound_socket(SOCK_STREAM, static_cast<uint16_t>(base_ + kPorts));
            if (reservation_ && all_free()) return;
        }
        throw std::runtime_error("no block of free ports");
    }

    [[nodiscard]] uint16_t base() const noexcept { return base_; }
    [[nodiscard]] uint16_t control() const noexcept { return static_cast<uint16_t>(base_ + 3); }

  private:
    static constexpr uint16_t kPorts = 6;

    [[nodiscard]] bool all_free() const {
        for (uint16_t port = base_; port < base_ + kPorts; ++port) {
            if (!bound_socket(SOCK_STREAM, port) || !bound_socket(SOCK_DGRAM, port)) return false;
        }
        return true;
    }

    UniqueFd reservation_;
    uint16_t base_ = 0;
};

}  // namespace ox::test
