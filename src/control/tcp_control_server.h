#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/secret.h"
#include "base/unique_fd.h"
#include "control/auth_line.h"
#include "control/control_message.h"
#include "control/session_keys.h"

namespace ox {

enum class HandshakeFailure : uint8_t {
    none,
    cannot_listen,  ///< the port could not be opened: nobody could have connected
    cannot_accept,
    cannot_answer,  ///< the launcher disconnected before it had its keys
    rejected,
    timed_out,
    aborted,
};

/// The server's side of the control channel: one launcher, its handshake, then JSON lines in both
/// directions. Any thread may call `send_line` and `is_connected`, the owner's the rest. A reader
/// thread runs from `start_async_read` to `close`.
class TcpControlServer {
  public:
    using AbortPredicate = std::function<bool()>;

    TcpControlServer() = default;
    ~TcpControlServer();
    TcpControlServer(const TcpControlServer&) = delete;
    TcpControlServer& operator=(const TcpControlServer&) = delete;

    /// Blocks for at most `accept_timeout_s` (below 1: 60 s) plus `auth_timeout`; `abort` is asked
    /// at least every 100 ms. False: `failure` says why, everything is closed.
    bool accept_and_handshake(uint16_t port, const AbortPredicate& abort, int accept_timeout_s);

    /// IPv4 address to send media to; empty when no launcher ever connected.
    [[nodiscard]] std::string remote_address() const;

    /// Starts the reader thread. Does nothing when closed or already started.
    void start_async_read();

    /// Sends `text` and a line feed whole, also against other writers. False on any send error
    /// (also when the launcher takes nothing for 5 s); one inside a line ends the connection.
    bool send_line(std::string_view text);

    [[nodiscard]] bool is_connected() const { return connected_; }

    void close();

    // Set by the owner before the handshake.
    Secret master_key;                               ///< 32 bytes from the platform, or empty
    std::string expected_token_sha256;               ///< hex; empty refuses every launcher
    uint32_t host_caps = 0;                          ///< `caps` bits of the agent
    std::chrono::milliseconds auth_timeout{15'000};  ///< for the whole auth line
    std::function<void()> before_ready;  ///< runs right before an accepted launcher gets its keys
    /// The result of each attempt to listen: 0 or errno.
    std::function<void(uint16_t port, int error)> on_listen;
    /// Called on the reader thread for every message but pings. Must not throw or call `close`.
    /// Set before `start_async_read`; may be empty.
    std::function<void(const ControlMessage&)> on_message;

    // Results of the handshake.
    std::string udp_ip;         ///< launcher-reported media address after the override rule
    std::string tcp_remote_ip;  ///< the accepted peer
    RequestedStream requested;
    uint32_t launcher_caps = 0;
    uint32_t granted_caps = 0;
    HandshakeFailure failure = HandshakeFailure::none;
    SessionKeySet keys;

    /// Whether `token` is the expected one; without an expectation none is.
    [[nodiscard]] bool verify_token(std::string_view token) const;
    void generate_session_keys() { keys.generate(master_key); }

  private:
    HandshakeFailure handshake(uint16_t port, const AbortPredicate& abort, int accept_timeout_s);
    HandshakeFailure accept_launcher(uint16_t port, const AbortPredicate& abort,
                                     int accept_timeout_s);
    HandshakeFailure receive_auth_line(const AbortPredicate& abort, Secret& line);
    bool authenticate(std::string_view line);
    void set_client(UniqueFd socket);
    void set_request(const AuthMessage& message);
    void set_udp_ip(const std::string& reported);
    void reader_loop();
    void handle_line(const LineSplitter::Line& line);

    UniqueFd listen_socket_;
    UniqueFd client_socket_;
    Mutex send_mutex_;  ///< held for one whole line
    /// `client_socket_` for the writers: `close` must use that one while a writer holds the mutex.
    int send_socket_ OX_GUARDED_BY(send_mutex_) = -1;
    std::atomic<bool> connected_{false};  ///< set only while `client_socket_` is open
    std::atomic<bool> reading_{false};    ///< cleared by `close` only, unless no thread could start
    std::jthread reader_thread_;
};

}  // namespace ox
