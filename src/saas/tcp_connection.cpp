#include "saas/tcp_connection.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "base/clock.h"
#include "base/resolve_host.h"
#include "log/log.h"
#include "saas/redaction.h"

namespace ox {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kSlice{200};

milliseconds until(SteadyClock::time_point deadline) {
    // Rounded up: a wait that ends just before its deadline would spin.
    return std::max(std::chrono::ceil<milliseconds>(deadline - SteadyClock::now()),
                    milliseconds(0));
}

/// An IPv6 address has brackets in a URL and nowhere else.
std::string without_brackets(const std::string& host) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

void set_option(int fd, int level, int name, int value) {
    ::setsockopt(fd, level, name, &value, sizeof value);
}

void configure_socket(int fd) {
    set_option(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    set_option(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_option(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
    set_option(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
    set_option(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
    // Keep-alive probes are not sent while data is unacknowledged, as a heartbeat always is once
    // the peer is dead; this limit ends the link 20 s after that heartbeat.
    set_option(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 20'000);
}

short events_for(IoStatus status) {
    return status == IoStatus::WantWrite ? POLLOUT : POLLIN;
}

/// The outcome of a `send` or `recv`.
IoResult socket_result(ssize_t result, IoStatus want) {
    if (result > 0) return {IoStatus::Done, static_cast<size_t>(result)};
    if (result == 0) return {IoStatus::Closed, 0};
    const bool later = errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    return {later ? want : IoStatus::Failed, 0};
}

}  // namespace

bool TcpConnection::open(const std::string& host, uint16_t port, bool tls) {
    const std::string target = without_brackets(host);
    if (!connect_any(target, port)) return false;
    configure_socket(socket_.get());
    return !tls || start_tls(target);
}

bool TcpConnection::connect_any(const std::string& host, uint16_t port) {
    const AddressList addresses =
        resolve_host(host, port, AF_UNSPEC, [this] { return !running_; }).addresses;
    if (!running_) return false;
    if (!addresses) {
        OX_WARN("SaasConnector: cannot resolve %s:%u", loggable(host).c_str(), unsigned{port});
        return false;
    }
    for (const addrinfo* at = addresses.get(); at && running_; at = at->ai_next) {
        UniqueFd socket(::socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                                 at->ai_protocol));
        if (!socket) continue;
        const int fd = socket.get();
        if (!set_socket(std::move(socket))) return false;
        if (connect_one(fd, at->ai_addr, at->ai_addrlen)) return true;
        reset_socket();
    }
    if (running_) {
        OX_WARN("SaasConnector: TCP connect to %s:%u failed", loggable(host).c_str(),
                unsigned{port});
    }
    return false;
}

bool TcpConnection::connect_one(int fd, const void* address, unsigned address_size) {
    if (::connect(fd, static_cast<const sockaddr*>(address), address_size) == 0) return true;
    if (errno != EINPROGRESS && errno != EINTR) return false;
    const auto deadline = SteadyClock::now() + limits_.connect;
    while (running_ && SteadyClock::now() < deadline) {
        if (poll_socket(POLLOUT, std::min(kSlice, until(deadline))) == Wait::TimedOut) continue;
        int error = 0;
        socklen_t size = sizeof error;
        return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
    }
    return false;
}

bool TcpConnection::start_tls(const std::string& host) {
    tls_ = TlsSession::create(socket_.get(), host);
    if (!tls_) {
        OX_ERROR("SaasConnector: TLS handshake failed: %s", "the TLS library refused the set-up");
        return false;
    }
    const auto deadline = SteadyClock::now() + limits_.tls_handshake;
    IoStatus status = tls_->handshake();
    while (status == IoStatus::WantRead || status == IoStatus::WantWrite) {
        if (!running_) return false;
        if (SteadyClock::now() >= deadline) {
            OX_ERROR("SaasConnector: TLS handshake failed: %s", "timed out");
            return false;
        }
        poll_socket(events_for(status), std::min(kSlice, until(deadline)));
        status = tls_->handshake();
    }
    if (status != IoStatus::Done) {
        if (running_) {
            OX_ERROR("SaasConnector: TLS handshake failed: %s",
                     loggable(tls_->failure_text()).c_str());
        }
        return false;
    }
    OX_INFO("SaasConnector: TLS established (%s)", tls_->cipher_name().c_str());
    return true;
}

TcpConnection::Wait TcpConnection::wait_readable(Milliseconds timeout, int wake_fd) {
    if (tls_ && tls_->has_pending()) return Wait::Ready;
    return poll_socket(read_wants_write_ ? POLLOUT : POLLIN, timeout, wake_fd);
}

ssize_t TcpConnection::read(std::span<uint8_t> buffer) {
    const IoResult result = read_some(buffer);
    read_wants_write_ = result.status == IoStatus::WantWrite;
    switch (result.status) {
        case IoStatus::Done:
            return static_cast<ssize_t>(result.count);
        case IoStatus::WantRead:
        case IoStatus::WantWrite:
            return -1;
        case IoStatus::Closed:
        case IoStatus::Failed:
            break;
    }
    return 0;
}

ssize_t TcpConnection::write_all(std::span<const uint8_t> bytes) {
    const auto deadline = SteadyClock::now() + limits_.write;
    size_t written = 0;
    while (!broken_ && written < bytes.size()) {
        const IoResult result = write_some(bytes.subspan(written));
        if (result.status == IoStatus::Done) {
            written += result.count;
        } else if (result.status == IoStatus::Closed || result.status == IoStatus::Failed) {
            broken_ = true;
        } else if (SteadyClock::now() >= deadline) {
            OX_WARN("SaasConnector: the backend takes no data for %lld ms - closing",
                    static_cast<long long>(limits_.write.count()));
            broken_ = true;
        } else {
            broken_ = poll_socket(events_for(result.status), until(deadline)) == Wait::Broken;
        }
    }
    return broken_ ? -1 : static_cast<ssize_t>(written);
}

void TcpConnection::shut_down() {
    if (broken_) return;
    if (tls_) tls_->send_close_notify();
    ::shutdown(socket_.get(), SHUT_WR);
    const auto deadline = SteadyClock::now() + limits_.drain;
    std::array<uint8_t, 16'384> discarded{};
    while (until(deadline) > milliseconds(0)) {
        if (wait_readable(until(deadline)) != Wait::Ready || read(discarded) == 0) return;
    }
}

IoResult TcpConnection::read_some(std::span<uint8_t> buffer) {
    if (!socket_) return {IoStatus::Failed, 0};
    if (tls_) return tls_->read(buffer);
    return socket_result(::recv(socket_.get(), buffer.data(), buffer.size(), 0),
                         IoStatus::WantRead);
}

IoResult TcpConnection::write_some(std::span<const uint8_t> bytes) {
    if (!socket_) return {IoStatus::Failed, 0};
    if (tls_) return tls_->write(bytes);
    return socket_result(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                         IoStatus::WantWrite);
}

TcpConnection::Wait TcpConnection::poll_socket(short events, Milliseconds timeout,
                                               int wake_fd) const {
    const auto deadline = SteadyClock::now() + timeout;
    std::array<pollfd, 2> fds{{{.fd = socket_.get(), .events = events, .revents = 0},
                               {.fd = wake_fd, .events = POLLIN, .revents = 0}}};
    int ready = 0;
    do {
        ready = ::poll(fds.data(), fds.size(), static_cast<int>(until(deadline).count()));
    } while (ready < 0 && errno == EINTR);
    if (ready < 0) return Wait::Broken;
    if ((fds[0].revents & ~(POLLERR | POLLHUP | POLLNVAL)) != 0) return Wait::Ready;
    if (fds[0].revents != 0) return Wait::Broken;
    return fds[1].revents != 0 ? Wait::Woken : Wait::TimedOut;
}

bool TcpConnection::set_socket(UniqueFd socket) {
    const MutexLock lock(socket_mutex_);
    if (aborted_) return false;
    socket_ = std::move(socket);
    return true;
}

void TcpConnection::reset_socket() {
    const MutexLock lock(socket_mutex_);
    socket_.reset();
}

void TcpConnection::close() {
    if (tls_ && !broken_) tls_->send_close_notify();
    tls_.reset();
    if (socket_) ::shutdown(socket_.get(), SHUT_RDWR);
    reset_socket();
}

void TcpConnection::abort() {
    const MutexLock lock(socket_mutex_);
    aborted_ = true;
    if (socket_) ::shutdown(socket_.get(), SHUT_RDWR);
}

}  // namespace ox
