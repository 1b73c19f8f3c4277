#include "control/tcp_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "log/log.h"

namespace ox {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kSendTimeout{5};
constexpr milliseconds kAbortInterval{100};

/// Best effort: a connection works without any of these options.
template <typename Value>
void set_option(int fd, int level, int name, const Value& value) {
    ::setsockopt(fd, level, name, &value, sizeof value);
}

/// Binds all addresses, also while old connections of the port time out. False leaves errno.
bool bind_port(int fd, uint16_t port) {
    set_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

milliseconds time_left(SteadyClock::time_point deadline) {
    return std::chrono::duration_cast<milliseconds>(deadline - SteadyClock::now());
}

/// False when the deadline has passed. An error of the socket is left to the next send.
bool wait_writable(int fd, SteadyClock::time_point deadline) {
    const milliseconds left = time_left(deadline);
    if (left.count() <= 0) return false;
    pollfd watched{.fd = fd, .events = POLLOUT, .revents = 0};
    ::poll(&watched, 1, static_cast<int>(left.count()));
    return true;
}

}  // namespace

int open_listener(uint16_t port, UniqueFd& listener) {
    // Non-blocking: accept must not hang when a connection disappears between poll and accept.
    UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    int error = 0;
    if (!fd) {
        error = errno;
        OX_ERROR("TcpControlServer: socket() failed: %s", std::strerror(error));
    } else if (!bind_port(fd.get(), port)) {
        error = errno;
        OX_ERROR("TcpControlServer: bind :%u failed: %s", unsigned{port}, std::strerror(error));
    } else if (::listen(fd.get(), 1) != 0) {
        error = errno;
        OX_ERROR("TcpControlServer: listen failed: %s", std::strerror(error));
    } else {
        listener = std::move(fd);
    }
    return error;
}

int tcp_port_error(uint16_t port) {
    const UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return fd && bind_port(fd.get(), port) ? 0 : errno;
}

void tune_client_socket(int fd) {
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
    set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
    // No keep-alive probes are sent while data is unacknowledged; this bounds that wait too.
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 30'000u);
}

int take_pending_error(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

WaitResult wait_readable(int fd, SteadyClock::time_point deadline,
                         const std::function<bool()>& abort) {
    for (;;) {
        const milliseconds left = time_left(deadline);
        if (left.count() < 1) return WaitResult::timed_out;
        if (abort && abort()) return WaitResult::aborted;

        pollfd watched{.fd = fd, .events = POLLIN, .revents = 0};
        const int ready =
            ::poll(&watched, 1, static_cast<int>(std::min(left, kAbortInterval).count()));
        if (ready == 0 || (ready < 0 && errno == EINTR)) continue;
        if (ready < 0 || (watched.revents & (POLLERR | POLLNVAL)) != 0) return WaitResult::failed;
        return WaitResult::readable;
    }
}

bool send_all(int fd, std::string_view bytes) {
    const auto deadline = SteadyClock::now() + kSendTimeout;
    const size_t total = bytes.size();
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else if (errno != EINTR && (errno != EAGAIN || !wait_writable(fd, deadline))) {
            if (bytes.size() < total) ::shutdown(fd, SHUT_RDWR);
            return false;
        }
    }
    return true;
}

}  // namespace ox
