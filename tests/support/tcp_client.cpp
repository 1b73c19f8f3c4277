#include "support/tcp_client.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "support/eventually.h"
#include "support/sockets.h"

namespace ox::test {

using Clock = std::chrono::steady_clock;

TcpClient::TcpClient(uint16_t port, std::chrono::milliseconds timeout) {
    const sockaddr_in address = loopback(port);
    const auto connects = [&] {
        socket_.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const auto* at = reinterpret_cast<const sockaddr*>(&address);
        return ::connect(socket_.get(), at, sizeof address) == 0;
    };
    if (!eventually(connects, timeout)) {
        throw std::runtime_error("nobody listens on port " + std::to_string(port));
    }
    const int on = 1;  // what is sent in pieces leaves in pieces
    ::setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool TcpClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const auto sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
}

bool TcpClient::receive(Clock::time_point deadline) {
    if (ended_) return false;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd readable{socket_.get(), POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) != 1) {
        return false;
    }
    std::array<char, 65'536> chunk;
    const auto got = ::recv(socket_.get(), chunk.data(), chunk.size(), 0);
    ended_ = got <= 0;
    if (!ended_) received_.append(chunk.data(), static_cast<size_t>(got));
    return !ended_;
}

std::optional<std::string> TcpClient::read_up_to(std::string_view end,
                                                 std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (received_.find(end) == std::string::npos) {
        if (!receive(deadline)) return std::nullopt;
    }
    auto text = take(received_.find(end), timeout);
    received_.erase(0, end.size());
    return text;
}

std::optional<std::string> TcpClient::take(size_t size, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (received_.size() < size) {
        if (!receive(deadline)) return std::nullopt;
    }
    auto bytes = received_.substr(0, size);
    received_.erase(0, size);
    return bytes;
}

bool TcpClient::closed_within(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (receive(deadline))
        received_.clear();
    return ended_;
}

void TcpClient::close(bool abruptly) {
    if (abruptly) {
        const linger at_once{1, 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    socket_.reset();
    ended_ = true;
}

}  // namespace ox::test
