#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "saas/transport.h"
#include "saas/ws_assembler.h"
#include "saas/ws_frame.h"

namespace ox {

/// The WebSocket on top of one open transport, client side (RFC 6455), as far as the backend uses
/// it: no extensions, no subprotocols, no close frame, not even in reply to one. The connector's
/// worker owns it and alone calls it.
class WsLink {
  public:
    using Milliseconds = std::chrono::milliseconds;

    struct Limits {
        Milliseconds upgrade{15'000};    ///< until the answer's head is complete
        Milliseconds frame_rest{5'000};  ///< without a further byte of a frame that has begun
    };

    enum class Handshake {
        Accepted,
        TokenRefused,  ///< the backend does not know the token
        Failed,
    };

    enum class Receive {
        Message,   ///< one whole message was taken
        NeedMore,  ///< everything read so far has been used
        Drop,      ///< the connection has to end
    };

    /// Borrows `transport`. `secret` (the agent's token) is masked in what is logged.
    WsLink(Transport& transport, std::string secret, Limits limits);

    /// Sends the upgrade request and judges the answer. Gives up soon after `running` is cleared.
    Handshake ws_handshake(const std::string& host, const std::atomic<bool>& running);

    /// Sends one final frame. False when the connection is no longer usable.
    bool ws_send_frame(std::string_view payload, WsOpcode opcode = WsOpcode::Text);

    /// Waits until `read_available` has something to do, at most `timeout`.
    Transport::Wait wait(Milliseconds timeout, int wake_fd);

    /// Reads once, without waiting. False at the end of the stream.
    bool read_available();

    /// Takes the next message out of what has been read; answers pings on the way.
    Receive ws_recv_message(std::string& message);

    /// A frame has begun and nothing more of it has come for longer than allowed.
    [[nodiscard]] bool frame_stalled() const;

    [[nodiscard]] SteadyClock::time_point last_frame_at() const noexcept { return last_frame_at_; }
    [[nodiscard]] uint16_t close_code() const noexcept { return assembler_.close_code(); }
    [[nodiscard]] const std::string& close_reason() const noexcept {
        return assembler_.close_reason();
    }

  private:
    Transport& transport_;
    const std::string secret_;
    const Limits limits_;
    WsFrameDecoder decoder_;
    WsAssembler assembler_;
    bool unexamined_ = false;  ///< the decoder has bytes that nobody has looked at
    SteadyClock::duration frame_waited_{};
    SteadyClock::time_point last_frame_at_ = SteadyClock::now();
};

}  // namespace ox
