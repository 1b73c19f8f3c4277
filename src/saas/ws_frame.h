#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace ox {

/// Frame types of RFC 6455, section 5.2.
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

/// Cuts a byte stream into frames. Pure; the bytes may come in pieces of any size. Tolerates what
/// does no harm: masked frames from a server, reserved bits, lengths in a longer form than needed.
class WsFrameDecoder {
  public:
    enum class Result {
        NeedMore,  ///< the rest of the next frame has not been fed yet
        Frame,
        TooLong,  ///< a frame announces more than kMaxWsMessage bytes; the stream is unusable
    };

    void feed(std::span<const uint8_t> bytes);

    /// Takes the next frame.
    Result next(WsFrame& frame);

    /// Part of a frame has arrived (true also when a whole one waits to be taken).
    [[nodiscard]] bool mid_frame() const noexcept { return consumed_ < buffer_.size(); }

    /// Payload bytes that the frame announced after `TooLong`.
    [[nodiscard]] uint64_t announced() const noexcept { return announced_; }

  private:
    std::string buffer_;
    size_t consumed_ = 0;  ///< bytes of `buffer_` that belonged to frames already taken
    uint64_t announced_ = 0;
};

}  // namespace ox
