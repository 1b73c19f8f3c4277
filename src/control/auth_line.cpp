#include "control/auth_line.h"

#include <sodium.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <exception>

#include "base/text.h"
#include "control/json_fields.h"
#include "control/tcp_socket.h"

namespace ox {
namespace {

constexpr size_t kMaxLineBytes = 16383;
constexpr size_t kChunkBytes = 2048;

// Independent of the process's locale.
char to_lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

AuthRead as_auth_read(WaitResult result) {
    if (result == WaitResult::aborted) return AuthRead::aborted;
    return result == WaitResult::timed_out ? AuthRead::timed_out : AuthRead::failed;
}

}  // namespace

std::optional<AuthError> parse_auth_message(std::string_view line, AuthMessage& message) {
    try {
        auto object = parse_json_object(line);
        const bool has_type = object.contains("type");
        const std::string type = take_text(object, "type");
        if (type != "auth") {
            return AuthError{AuthError::Kind::wrong_type,
                             has_type ? text::printable(type) : "unknown"};
        }
        const RequestedStream defaults;
        message.token = take_secret(object, "token");
        message.stream = {.codec = int32_field(object, "codec", defaults.codec),
                          .width = int32_field(object, "width", defaults.width),
                          .height = int32_field(object, "height", defaults.height),
                          .fps = int32_field(object, "fps", defaults.fps),
                          .bitrate = int32_field(object, "bitrate", defaults.bitrate)};
        message.caps = uint32_field(object, "caps", 0);
        message.udp_ip = take_text(object, "udp_ip");
        return std::nullopt;
    } catch (const std::exception& error) {
        return AuthError{AuthError::Kind::malformed, redacted_json_error(error.what())};
    }
}

bool token_matches(std::string_view token, const std::string& expected_sha256_hex) {
    constexpr size_t kHexLength = size_t{2} * crypto_hash_sha256_BYTES;
    Secret digest(crypto_hash_sha256_BYTES);
    std::array<char, kHexLength + 1> hex{};
    ::crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(token.data()),
                         token.size());
    ::sodium_bin2hex(hex.data(), hex.size(), digest.data(), digest.size());

    std::string expected = expected_sha256_hex;
    for (char& c : expected)
        c = to_lower(c);
    return expected.size() == kHexLength &&
           ::sodium_memcmp(expected.data(), hex.data(), kHexLength) == 0;
}

AuthRead read_auth_line(int fd, SteadyClock::time_point deadline,
                        const std::function<bool()>& abort, Secret& line) {
    line.clear();
    line.reserve(kMaxLineBytes + kChunkBytes);  // never grows
    Secret buffer(kChunkBytes);
    while (line.size() <= kMaxLineBytes) {
        const auto wait = wait_readable(fd, deadline, abort);
        if (wait != WaitResult::readable) return as_auth_read(wait);
        const ssize_t received = ::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (received < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (received <= 0) return AuthRead::closed;
        const std::string_view chunk = buffer.text().substr(0, static_cast<size_t>(received));
        const size_t line_feed = chunk.find('\n');
        line.append(chunk.substr(0, line_feed));
        if (line_feed != std::string_view::npos) return AuthRead::complete;
    }
    return AuthRead::too_large;
}

}  // namespace ox
