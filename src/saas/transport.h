#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "base/unique_fd.h"
#include "saas/tls_session.h"

namespace ox {

/// One TCP connection to the backend, with or without TLS. The connector's worker makes it, uses it
/// and frees it; `abort` alone may be called from other threads. No call blocks without a bound.
class Transport {
  public:
    using Milliseconds = std::chrono::milliseconds;

    struct Limits {
        Milliseconds connect{10'000};        ///< for each address
        Milliseconds tls_handshake{15'000};  ///< in all
        Milliseconds write{15'000};          ///< for each `write_all`
        Milliseconds goodbye{200};           ///< for the backend to end its side, too
    };

    enum class Wait {
        Ready,
        TimedOut,
        Woken,   ///< the wake descriptor became readable
        Broken,  ///< the connection is gone
    };

    /// `open` gives up soon after `running` is cleared. The flag must outlive the transport.
    Transport(const std::atomic<bool>& running, Limits limits)
        : running_(running), limits_(limits) {}
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;
    ~Transport() { close(); }

    /// Resolves, connects and, with `tls`, shakes hands. Logs its failures. Called once.
    bool open(const std::string& host, uint16_t port, bool tls);

    /// Waits until there is something to read, or until `wake_fd` (-1: none) is readable.
    Wait wait_readable(Milliseconds timeout, int wake_fd = -1);

    /// Bytes read; 0 when the stream has ended or failed; -1 when nothing is there yet.
    ssize_t read(std::span<uint8_t> buffer);

    /// Writes everything and returns its size, or -1: then the stream is unusable.
    ssize_t write_all(std::span<const uint8_t> bytes);

    /// Ends what the agent sends and takes in, unread, what the backend still does: a socket that
    /// is closed with bytes in it takes what was sent last with it. Nothing can be written
    /// afterwards.
    void say_goodbye();

    /// Frees the TLS session and closes the socket. May be called twice.
    void close();

    /// Any thread: ends the connection under the worker's feet; its calls fail from then on. Frees
    /// nothing.
    void abort();

  private:
    bool connect_any(const std::string& host, uint16_t port);
    bool connect_one(int fd, const void* address, unsigned address_size);
    bool start_tls(const std::string& host);
    bool adopt(UniqueFd socket);
    void drop_socket();
    IoResult read_some(std::span<uint8_t> buffer);
    IoResult write_some(std::span<const uint8_t> bytes);
    Wait poll_socket(short events, Milliseconds timeout, int wake_fd = -1) const;

    const std::atomic<bool>& running_;
    const Limits limits_;
    std::mutex socket_mutex_;  ///< guards changes of `socket_`, and `aborted_`
    UniqueFd socket_;          ///< changed by the worker only
    bool aborted_ = false;
    std::unique_ptr<TlsSession> tls_;
    bool broken_ = false;            ///< a write failed half-way
    bool read_wants_write_ = false;  ///< TLS has to send before it can go on reading
};

}  // namespace ox
