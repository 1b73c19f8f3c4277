#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "base/clock.h"
#include "base/mutex.h"
#include "base/unique_fd.h"
#include "control/session_keys.h"

namespace ox::launcher {

/// How an attempt to open a session ended.
enum class ConnectResult : uint8_t {
    Ready,
    Refused,      ///< no connection until the deadline
    UnknownHost,  ///< the name does not exist
    Rejected,     ///< the agent closed the connection after the auth line
    NoAnswer,     ///< connected, but the deadline passed without an answer
    BadAnswer,    ///< the answer is no session_ready
    Stopped,      ///< `stop` returned true
};

/// The launcher's end of the TCP control channel. The owner may be one thread; `send_line`
/// and the readings of the connection's state may be called by any. A reader thread runs from a
/// successful `connect` to `close`.
class ControlClient {
  public:
    using StopPredicate = std::function<bool()>;

    ControlClient() = default;
    ~ControlClient() { close(); }
    ControlClient(const ControlClient&) = delete;
    ControlClient& operator=(const ControlClient&) = delete;

    /// Connects to `host` (name or IPv4 address), sends `auth_line` and waits for the keys. Retries
    /// refused connections until `deadline`. `stop` is called at least every 100 ms.
    ConnectResult connect(const std::string& host, uint16_t port, const std::string& auth_line,
                          SteadyClock::time_point deadline, const StopPredicate& stop);

    /// Dotted IPv4 address to connect from. Call before `connect`.
    void set_local_ip(const std::string& ip) { local_ip_ = ip; }

    /// Sends `line` and a line feed. False when the connection is gone, or when the agent does not
    /// read for a second, which ends the connection.
    bool send_line(std::string_view line);
    /// Sends a ping; its pong updates `rtt_ms`.
    bool send_ping();

    [[nodiscard]] bool is_connected() const { return connected_; }
    /// The agent has closed the connection itself: it ended the session.
    [[nodiscard]] bool ended_by_agent() const { return ended_by_agent_; }
    /// Of the last bytes from the agent, own steady clock.
    [[nodiscard]] uint64_t last_heard_us() const { return last_heard_us_; }
    /// Smoothed round-trip time; 0 before the first pong.
    [[nodiscard]] double rtt_ms() const { return rtt_ms_; }
    /// Dotted IPv4 address of the agent, once connected.
    [[nodiscard]] const std::string& agent_ip() const { return agent_ip_; }
    /// The session's keys, once `connect` returned Ready.
    [[nodiscard]] const SessionKeySet& keys() const { return keys_; }
    /// One line for the user about the last failure.
    [[nodiscard]] const std::string& error() const { return error_; }

    /// Ends the connection and the reader. Safe to call twice.
    void close();

  private:
    enum class Attempt : uint8_t { Connected, TryAgain, UnknownHost, Stopped };

    Attempt try_connect(const std::string& host, uint16_t port, SteadyClock::time_point deadline,
                        const StopPredicate& stop);
    std::optional<ConnectResult> authenticate(const std::string& auth_line,
                                              SteadyClock::time_point deadline,
                                              const StopPredicate& stop);
    void reader_loop();
    void on_line(std::string_view line);

    std::string local_ip_;
    UniqueFd socket_;
    std::string agent_ip_;
    SessionKeySet keys_;
    std::string error_;
    std::string received_;  ///< the owner's while connecting, then the reader's
    Mutex send_mutex_;      ///< keeps lines whole
    std::atomic<bool> connected_{false};
    std::atomic<bool> ended_by_agent_{false};
    std::atomic<uint64_t> last_heard_us_{0};
    std::atomic<double> rtt_ms_{0};
    std::jthread reader_;
};

}  // namespace ox::launcher
