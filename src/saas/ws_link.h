#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "saas/tcp_connection.h"
#include "saas/ws_frame.h"

namespace ox {

/// The WebSocket client (RFC 6455) on one open connection, as far as the backend needs it: no
/// extensions, no subprotocols, no close frame, not even in reply to one. Used by one thread.
class WsLink {
  public:
    using Milliseconds = std::chrono::milliseconds;

    struct Limits {
        Milliseconds upgrade{15'000};  ///< until the response's head is complete
        Milliseconds frame{5'000};     ///< without progress in the middle of a frame
    };

    enum class Handshake {
        Accepted,
        TokenRefused,  ///< the backend does not know the token
        Failed,
    };

    enum class Receive {
        Message,
        NeedMore,  ///< everything read so far is decoded
        Drop,      ///< the connection has to end
    };

    /// Borrows `connection`. `secret` (the agent's token) is redacted in the log.
    WsLink(TcpConnection& connection, std::string secret, Limits limits);

    /// Sends the upgrade request and reads the response. Gives up soon after `running` is cleared.
    Handshake ws_handshake(const std::string& host, const std::atomic<bool>& running);

    /// Sends one final frame. False when the connection is no longer usable.
    bool ws_send_frame(std::string_view payload, WsOpcode opcode = WsOpcode::Text);

    /// Waits until `read_available` has something, `wake_fd` is readable or `timeout` has passed.
    TcpConnection::Wait wait(Milliseconds timeout, int wake_fd);

    /// Reads once, without blocking. False at the end of the stream.
    bool read_available();

    /// Takes the next message out of what has been read and answers the pings before it.
    Receive ws_recv_message(std::string& message);

    /// The rest of a frame has not come in time.
    [[nodiscard]] bool frame_stalled() const;

    [[nodiscard]] SteadyClock::time_point last_frame_at() const noexcept { return last_frame_at_; }
    [[nodiscard]] uint16_t close_code() const noexcept { return assembler_.close_code(); }
    [[nodiscard]] const std::string& close_reason() const noexcept {
        return assembler_.close_reason();
    }

  private:
    TcpConnection& connection_;
    const std::string secret_;
    const Limits limits_;
    WsFrameDecoder decoder_;
    WsAssembler assembler_;
    bool undecoded_ = false;  ///< the decoder may hold another whole frame
    SteadyClock::duration frame_waited_{};
    SteadyClock::time_point last_frame_at_ = SteadyClock::now();
};

}  // namespace ox
