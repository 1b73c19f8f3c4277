#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "base/clock.h"
#include "base/secret.h"

// The first line of a launcher: read from its socket, parsed, its token checked.

namespace ox {

/// Bits of the "caps" fields in the auth line and in the answer to it.
namespace caps {
inline constexpr uint32_t RFI = 0x01;     ///< reference frame invalidation
inline constexpr uint32_t kKnown = 0x03;  ///< bits that are ever granted
}  // namespace caps

constexpr uint32_t grant_caps(uint32_t launcher_caps, uint32_t host_caps) {
    return launcher_caps & host_caps & caps::kKnown;
}

/// The stream a launcher asks for, as sent (not clamped).
struct RequestedStream {
    int32_t codec = 0;  ///< 0 H.264, 1 HEVC, 2 AV1
    int32_t width = 1920;
    int32_t height = 1080;
    int32_t fps = 60;
    int32_t bitrate = 15000;  ///< kbit/s
};

struct AuthMessage {
    Secret token;
    RequestedStream stream;
    uint32_t caps = 0;   ///< 0 for a negative number
    std::string udp_ip;  ///< self-reported, unchecked
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

/// Parses one line (without its line feed). Never throws. The caller wipes `line`; the JSON
/// library's scratch memory cannot be wiped.
std::optional<AuthError> parse_auth_message(std::string_view line, AuthMessage& message);

/// Whether the SHA-256 of `token` is `expected_sha256_hex` (either case), in constant time.
bool token_matches(std::string_view token, const std::string& expected_sha256_hex);

enum class AuthRead : uint8_t {
    complete,   ///< a line feed came
    too_large,  ///< more than 16383 bytes without one
    aborted,
    timed_out,
    failed,  ///< the socket has an error
    closed,  ///< the launcher disconnected
};

/// Reads up to the first line feed and drops the rest of that segment. The whole line has to come
/// by `deadline`.
AuthRead read_auth_line(int fd, SteadyClock::time_point deadline,
                        const std::function<bool()>& abort, Secret& line);

}  // namespace ox
