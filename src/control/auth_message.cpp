#include "control/auth_message.h"

#include <exception>

#include "base/text.h"
#include "control/json_fields.h"
#include "control/log_text.h"

namespace ox {

std::optional<AuthError> parse_auth_message(std::string_view line, AuthMessage& message) {
    try {
        auto object = parse_json_object(line);
        const bool has_type = object.contains("type");
        const std::string type = take_text(object, "type");
        if (type != "auth") {
            return AuthError{AuthError::Kind::wrong_type,
                             has_type ? text::printable(type) : "unknown"};
        }
        const AuthMessage defaults;
        message.token = take_secret(object, "token");
        message.codec = int32_field(object, "codec", defaults.codec);
        message.width = int32_field(object, "width", defaults.width);
        message.height = int32_field(object, "height", defaults.height);
        message.fps = int32_field(object, "fps", defaults.fps);
        message.bitrate = int32_field(object, "bitrate", defaults.bitrate);
        message.caps = uint32_field(object, "caps", defaults.caps);
        message.udp_ip = take_text(object, "udp_ip");
        return std::nullopt;
    } catch (const std::exception& error) {
        return AuthError{AuthError::Kind::malformed, without_input(error.what())};
    }
}

}  // namespace ox
