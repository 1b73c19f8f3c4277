#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace ox {

/// 16 random bytes in base64 (RFC 6455, section 4.1).
std::string make_ws_key();

/// Control characters (a line end in a token from a file) are left out. Pure.
std::string ws_build_handshake(std::string_view host, std::string_view key,
                               std::string_view agent_token);

/// The server's response. The check is lenient: it has to mention 101 and an upgrade.
class UpgradeResponse {
  public:
    enum class State { Incomplete, TooLong, Accepted, Rejected };

    State feed(std::span<const uint8_t> bytes);

    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    /// The bytes behind the head, which begin the first frame.
    [[nodiscard]] std::string_view leftover() const noexcept;
    /// The status is 401 or 403: the backend does not know the agent's token.
    [[nodiscard]] bool token_refused() const noexcept;

  private:
    static constexpr size_t kMaxHead = 16'384;

    std::string text_;
    size_t head_size_ = 0;  ///< with the empty line; 0: incomplete
};

}  // namespace ox
