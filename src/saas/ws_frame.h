#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace ox {

/// RFC 6455, section 5.2.
enum class WsOpcode : uint8_t {
    Continuation = 0,
    Text = 1,
    Binary = 2,
    Close = 8,
    Ping = 9,
    Pong = 10,
};

/// Largest payload of a frame, and of a message put together from frames.
inline constexpr size_t kMaxWsMessage = 1'048'576;

using WsMaskKey = std::array<uint8_t, 4>;

/// One whole frame (final, masked with `key`) as it goes to the server. Pure.
std::string encode_ws_frame(WsOpcode opcode, std::string_view payload, const WsMaskKey& key);

struct WsFrame {
    bool fin = false;
    uint8_t opcode = 0;   ///< as received; not every value is a `WsOpcode`
    std::string payload;  ///< unmasked
};

/// Decodes a stream. Tolerates masked frames, reserved bits and lengths in a needlessly long form.
class WsFrameDecoder {
  public:
    enum class Result {
        NeedMore,  ///< the next frame is incomplete
        Frame,
        TooLong,  ///< a frame announces more than kMaxWsMessage bytes; the stream is unusable
    };

    void feed(std::span<const uint8_t> bytes);

    Result next(WsFrame& frame);

    /// There are bytes of a frame that was not taken.
    [[nodiscard]] bool mid_frame() const noexcept { return consumed_ < buffer_.size(); }

    /// After `TooLong`: the payload size of that frame.
    [[nodiscard]] uint64_t announced() const noexcept { return announced_; }

  private:
    std::string buffer_;
    size_t consumed_ = 0;  ///< bytes of `buffer_` that belonged to frames already taken
    uint64_t announced_ = 0;
};

/// Puts messages together from frames. `secret` is redacted in the log.
class WsAssembler {
  public:
    enum class Step {
        Nothing,
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
