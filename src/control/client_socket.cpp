#include "control/client_socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>

#include "base/clock.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kSendTimeout{5};

template <typename Value>
void set_option(int fd, int level, int name, const Value& value) {
    // What fails here costs comfort, never the connection.
    ::setsockopt(fd, level, name, &value, sizeof value);
}

// False when the deadline has passed. An error of the socket is left to the next send.
bool wait_for_room(int fd, SteadyClock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
    if (left.count() <= 0) return false;
    pollfd watched{.fd = fd, .events = POLLOUT, .revents = 0};
    ::poll(&watched, 1, static_cast<int>(left.count()));
    return true;
}

}  // namespace

void tune_client_socket(int fd) {
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
    set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
    // Keep-alive is silent while a pong waits for its acknowledgement; this bounds that wait too.
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 30'000u);
}

int take_pending_error(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

bool send_whole(int fd, std::string_view bytes) {
    const auto deadline = SteadyClock::now() + kSendTimeout;
    const size_t whole = bytes.size();
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else if (errno != EINTR && (errno != EAGAIN || !wait_for_room(fd, deadline))) {
            if (bytes.size() < whole) ::shutdown(fd, SHUT_RDWR);
            return false;
        }
    }
    return true;
}

}  // namespace ox
