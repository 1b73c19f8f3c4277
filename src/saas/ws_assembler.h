#pragma once

#include <cstdint>
#include <string>

#include "saas/ws_frame.h"

namespace ox {

/// Turns frames into whole messages and says what each frame asks for. Keeps the fragments of a
/// message between calls. Does no I/O but the log. `secret` is masked in what it logs.
class WsAssembler {
  public:
    enum class Step {
        Nothing,  ///< go on with the next frame
        Message,  ///< `message` holds a whole text or binary message
        Pong,     ///< `message` holds the payload of the pong to send
        Drop,     ///< close frame or limit exceeded: the connection ends
    };

    explicit WsAssembler(std::string secret) : secret_(std::move(secret)) {}

    Step take(WsFrame frame, std::string& message);

    /// Of the close frame that ended the connection; 0 and empty without one.
    [[nodiscard]] uint16_t close_code() const noexcept { return close_code_; }
    [[nodiscard]] const std::string& close_reason() const noexcept { return close_reason_; }

  private:
    Step take_continuation(const WsFrame& frame, std::string& message);
    Step take_data(WsFrame& frame, std::string& message);
    Step take_close(const WsFrame& frame);

    std::string secret_;
    std::string fragments_;
    bool fragment_active_ = false;
    uint16_t close_code_ = 0;
    std::string close_reason_;
};

}  // namespace ox
