#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "base/mutex.h"
#include "base/unique_fd.h"
#include "saas/tls_session.h"

namespace ox {

/// One TCP connection to the backend, with or without TLS. Used by one thread, but for `abort`. No
/// call blocks without a time limit.
class TcpConnection {
  public:
    using Milliseconds = std::chrono::milliseconds;

    struct Limits {
        Milliseconds connect{10'000};  ///< for each address
        Milliseconds tls_handshake{15'000};
        Milliseconds write{15'000};  ///< for each `write_all`
        Milliseconds drain{200};     ///< for the backend to end its side, too
    };

    enum class Wait {
        Ready,
        TimedOut,
        Woken,   ///< the wake descriptor is readable
        Broken,  ///< the connection is gone
    };

    /// `open` gives up soon after `running` is cleared. The flag must outlive the connection.
    TcpConnection(const std::atomic<bool>& running, Limits limits)
        : running_(running), limits_(limits) {}
    TcpConnection(const TcpConnection&) = delete;
    TcpConnection& operator=(const TcpConnection&) = delete;
    ~TcpConnection() { close(); }

    /// Resolves, connects and does the TLS handshake. Logs its failures. Called once.
    bool open(const std::string& host, uint16_t port, bool tls);

    /// `wake_fd` (-1: none) ends the wait, too.
    Wait wait_readable(Milliseconds timeout, int wake_fd = -1);

    /// The number of bytes; 0 when the stream has ended or failed; -1 when nothing is there yet.
    ssize_t read(std::span<uint8_t> buffer);

    /// Writes everything and returns its size, or -1: then the stream is unusable.
    ssize_t write_all(std::span<const uint8_t> bytes);

    /// Ends the sending side and discards what the backend still sends: closing a socket with
    /// unread bytes resets the connection, and what was sent last may be lost.
    void shut_down();

    /// Frees the TLS session and closes the socket. May be called twice.
    void close();

    /// Any thread: makes all calls of the owning thread fail from now on. Frees nothing.
    void abort();

  private:
    bool connect_any(const std::string& host, uint16_t port);
    bool connect_one(int fd, const void* address, unsigned address_size);
    bool start_tls(const std::string& host);
    bool set_socket(UniqueFd socket);
    void reset_socket();
    IoResult read_some(std::span<uint8_t> buffer);
    IoResult write_some(std::span<const uint8_t> bytes);
    Wait poll_socket(short events, Milliseconds timeout, int wake_fd = -1) const;

    const std::atomic<bool>& running_;
    const Limits limits_;
    Mutex socket_mutex_;
    UniqueFd socket_;  ///< changed by the owning thread alone, under the mutex
    bool aborted_ OX_GUARDED_BY(socket_mutex_) = false;
    std::unique_ptr<TlsSession> tls_;
    bool broken_ = false;            ///< a write has failed
    bool read_wants_write_ = false;  ///< TLS has to send before it can go on reading
};

}  // namespace ox
