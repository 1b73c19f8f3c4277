#include "control/control_message.h"

#include <exception>
#include <utility>

#include "control/json_fields.h"
#include "control/log_text.h"

namespace ox {

ControlMessage parse_control_line(std::string_view line) {
    try {
        auto object = parse_json_object(line);
        std::string type = take_text(object, "type");
        if (type.empty()) return std::monostate{};
        if (type == "ping") return PingMessage{int64_field(object, "ts", 0)};
        if (type == "set_settings") {
            return SettingsChange{.bitrate = int32_field(object, "bitrate", 0),
                                  .fps = int32_field(object, "fps", 0),
                                  .width = int32_field(object, "width", 0),
                                  .height = int32_field(object, "height", 0)};
        }
        if (type == "stats") {
            return ClientStats{.rtt_ms = float_field(object, "rtt_ms", 0),
                               .packet_loss_pct = float_field(object, "packet_loss_pct", 0),
                               .decoded_fps = float_field(object, "decoded_fps", 0),
                               .jitter_ms = float_field(object, "jitter_ms", 0)};
        }
        return NamedMessage{std::move(type)};
    } catch (const std::exception& error) {
        return MalformedMessage{without_input(error.what())};
    }
}

std::string make_pong(int64_t ts) {
    return nlohmann::json{{"ts", ts}, {"type", "pong"}}.dump();
}

}  // namespace ox
