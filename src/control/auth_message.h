#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/secret.h"

namespace ox {

/// A launcher's first line, as sent (nothing is clamped but `caps`).
struct AuthMessage {
    Secret token;
    int32_t codec = 0;
    int32_t width = 1920;
    int32_t height = 1080;
    int32_t fps = 60;
    int32_t bitrate = 15000;  ///< kbit/s
    uint32_t caps = 0;        ///< 0 for a negative number
    std::string udp_ip;       ///< the launcher's own opinion of its address, unchecked
};

/// Why a line is no auth message. Both texts are fit for the log: printable, without token.
struct AuthError {
    enum class Kind : uint8_t {
        malformed,   ///< no JSON object, or a field of the wrong type; `text` says which
        wrong_type,  ///< another message; `text` is its type, "unknown" when it has none
    };
    Kind kind;
    std::string text;
};

/// Reads one line (without its line feed) into `message`. Never throws for any input. The bytes of
/// `line` are left for the caller to wipe; the JSON library's scratch memory is out of reach.
std::optional<AuthError> parse_auth_message(std::string_view line, AuthMessage& message);

}  // namespace ox
