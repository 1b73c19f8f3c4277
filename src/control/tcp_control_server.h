#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "base/clock.h"
#include "base/secret.h"
#include "base/unique_fd.h"
#include "control/control_message.h"
#include "control/line_splitter.h"
#include "control/session_keys.h"

namespace ox {

struct AuthMessage;

/// Why a handshake did not come about. Finer than the texts of `TcpControlServer::last_error`.
enum class HandshakeFailure : uint8_t {
    none,
    cannot_listen,  ///< the port could not be had: nobody could have connected
    cannot_accept,
    cannot_answer,  ///< the launcher left before it had its keys
    rejected,
    timed_out,
    aborted,
};

/// The server side of the launcher's TCP control channel: one launcher, its handshake, then JSON
/// lines in both directions. All functions belong to the owner's thread but `send_line` and
/// `is_connected`, which any thread may call. The reader thread runs from `start_async_read` to
/// `close` and calls the callbacks.
class TcpControlServer {
  public:
    using AbortPredicate = std::function<bool()>;

    /// What the launcher asked for in its auth line, as sent (not clamped).
    struct RequestedStream {
        int32_t codec = 0;  ///< 0 H.264, 1 HEVC, 2 AV1
        int32_t width = 1920;
        int32_t height = 1080;
        int32_t fps = 60;
        int32_t bitrate = 15000;  ///< kbit/s
    };

    struct Limits {
        std::chrono::milliseconds auth{15'000};  ///< for the whole auth line
    };

    TcpControlServer() = default;
    ~TcpControlServer();
    TcpControlServer(const TcpControlServer&) = delete;
    TcpControlServer& operator=(const TcpControlServer&) = delete;

    /// Waits for one launcher on `port` and completes its handshake. Blocks for at most
    /// `accept_timeout_s` (below 1: 60 s) plus `limits.auth`; `abort`, asked at least every 100 ms,
    /// ends it earlier. False: `failure` and `last_error` say why, everything is closed.
    bool accept_and_handshake(uint16_t port, const AbortPredicate& abort, int accept_timeout_s);

    /// IPv4 address to send media to; empty when no launcher ever connected.
    [[nodiscard]] std::string remote_address() const;

    /// Starts the reader thread, which calls the callbacks below. Does nothing when closed or
    /// already started.
    void start_async_read();

    /// Sends `text` and a line feed whole, also against other writers. False on any send error
    /// (also when the launcher takes nothing for 5 s); one inside a line ends the connection.
    bool send_line(std::string_view text);

    /// A launcher has been answered and its connection stands.
    [[nodiscard]] bool is_connected() const;

    /// Ends connection, reader and listener. Safe to call twice.
    void close();

    // Set by the owner before the handshake.
    Secret master_key;                  ///< 32 bytes from the platform, or empty
    std::string expected_token_sha256;  ///< hex; empty refuses every launcher
    uint32_t host_caps = 0;             ///< capabilities the agent has, `caps` bits
    Limits limits;
    std::function<void()> before_ready;  ///< runs when an accepted launcher is about to be told
    /// What came of each attempt to listen: 0, or the errno of its failure.
    std::function<void(uint16_t port, int error)> on_listen;

    // Set by the owner before `start_async_read`; run on the reader thread; any may be empty. They
    // must not throw and must not call `close`.
    std::function<void(const ClientStats&)> stats_callback;
    std::function<void(const std::string& type)> message_callback;
    std::function<void(const SettingsChange&)> settings_callback;

    // Results of the handshake.
    std::string udp_ip;         ///< launcher-reported media address after the override rule
    std::string tcp_remote_ip;  ///< the accepted peer
    RequestedStream requested;
    uint32_t launcher_caps = 0;
    uint32_t granted_caps = 0;
    HandshakeFailure failure = HandshakeFailure::none;
    std::string last_error = "AUTH_FAIL";  ///< `failure` in the words of the platform
    SessionKeySet keys;

    /// True when the SHA-256 of `token` is the expected one (constant-time comparison).
    [[nodiscard]] bool verify_token(std::string_view token) const;
    void generate_session_keys();

  private:
    bool handshake(uint16_t port, const AbortPredicate& abort, int accept_timeout_s);
    bool open_listener(uint16_t port);
    int try_to_listen(uint16_t port);  ///< 0, or errno after an error line
    bool accept_launcher(uint16_t port, const AbortPredicate& abort, int accept_timeout_s);
    void take_client(UniqueFd socket);
    bool receive_auth_line(SteadyClock::time_point deadline, const AbortPredicate& abort,
                           Secret& line);
    bool authenticate(std::string_view line);
    void take_request(const AuthMessage& message);
    void choose_udp_ip(const std::string& reported);
    bool send_session_ready();
    bool fail(HandshakeFailure why);
    void reader_loop(int socket);
    void handle_line(const LineSplitter::Line& line);
    void dispatch(const ControlMessage& message);

    UniqueFd listen_socket_;
    UniqueFd client_socket_;  ///< changed by the owner under `send_mutex_`, read by others under it
    std::mutex send_mutex_;   ///< held for one whole line
    std::atomic<bool> connected_{false};  ///< set only while `client_socket_` is open
    std::atomic<bool> reading_{false};    ///< cleared by `close` only, unless no thread could start
    std::jthread reader_thread_;
};

}  // namespace ox
