#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace ox {

/// 16 random bytes in base64, as the upgrade request needs them (RFC 6455, section 4.1).
std::string make_ws_key();

/// The HTTP request that turns the connection into a WebSocket. Bytes that no header may carry
/// (a stray line end in a token read from a file) are left out. Pure.
std::string ws_build_handshake(std::string_view host, std::string_view key,
                               std::string_view agent_token);

/// Collects the server's answer to the upgrade request and judges it, leniently: it is accepted
/// when it mentions 101 and an upgrade. Pure.
class UpgradeResponse {
  public:
    enum class State { Incomplete, TooLong, Accepted, Rejected };

    State feed(std::span<const uint8_t> bytes);

    /// Everything received.
    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    /// What came behind the head: the beginning of the first frame.
    [[nodiscard]] std::string_view leftover() const noexcept;
    /// The status line says 401 or 403: the backend does not know the agent's token.
    [[nodiscard]] bool token_refused() const noexcept;

  private:
    static constexpr size_t kMaxHead = 16'384;

    std::string text_;
    size_t head_size_ = 0;  ///< with the empty line; 0 while it is incomplete
};

}  // namespace ox
