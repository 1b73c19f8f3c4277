#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "base/unique_fd.h"
#include "support/eventually.h"
#include "support/sockets.h"

namespace ox::test {

/// A TCP connection to a local port that sends arbitrary bytes.
class TcpClient {
  public:
    using Milliseconds = std::chrono::milliseconds;

    /// Retries until it is accepted. Throws std::runtime_error on a timeout.
    TcpClient(uint16_t port, Milliseconds timeout) {
        const sockaddr_in address = loopback(port);
        const auto connects = [&] {
            socket_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            const auto* at = reinterpret_cast<const sockaddr*>(&address);
            return ::connect(socket_.get(), at, sizeof address) == 0;
        };
        if (!eventually(connects, timeout))
            throw std::runtime_error("nobody listens on port " + std::to_string(port));
        const int on = 1;  // pieces are not merged
        ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    /// Wraps an accepted connection.
    explicit TcpClient(UniqueFd socket) : socket_(std::move(socket)) {}

    /// False when the server has closed.
    bool send(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<size_t>(sent));
        }
        return true;
    }

    /// The bytes before the next `end`, or nothing on a timeout or when the server closes.
    std::optional<std::string> read_up_to(std::string_view end, Milliseconds timeout) {
        const auto came = [&] { return received_.find(end) != std::string::npos; };
        if (!receive_until(came, timeout)) return std::nullopt;
        auto text = take(received_.find(end), timeout);
        received_.erase(0, end.size());
        return text;
    }
    std::optional<std::string> read_line(Milliseconds timeout) { return read_up_to("\n", timeout); }
    /// The next `size` bytes, or nothing.
    std::optional<std::string> take(size_t size, Milliseconds timeout) {
        const auto came = [&] { return received_.size() >= size; };
        if (!receive_until(came, timeout)) return std::nullopt;
        auto bytes = received_.substr(0, size);
        received_.erase(0, size);
        return bytes;
    }

    /// Waits for the server to close or reset; discards what it sends.
    bool closed_within(Milliseconds timeout) {
        const auto drop = [&] {
            received_.clear();
            return false;
        };
        receive_until(drop, timeout);
        return ended_;
    }

    /// Ends the connection; by RST when `abruptly`.
    void close(bool abruptly = false) {
        const linger at_once{abruptly ? 1 : 0, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        socket_.reset();
        ended_ = true;
    }

  private:
    /// False on a timeout or when the server closes.
    template <typename Condition>
    bool receive_until(Condition&& condition, Milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!condition()) {
            const auto left =
                std::chrono::ceil<Milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd readable{socket_.get(), POLLIN, 0};
            const auto wait = static_cast<int>(std::max<int64_t>(left.count(), 0));
            if (ended_ || ::poll(&readable, 1, wait) != 1) return false;
            std::array<char, 65'536> chunk;
            const auto got = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
            ended_ = got <= 0;
            if (ended_) return false;
            received_.append(chunk.data(), static_cast<size_t>(got));
        }
        return true;
    }

    UniqueFd socket_;
    std::string received_;
    bool ended_ = false;
};

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
