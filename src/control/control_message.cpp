#include "control/control_message.h"

#include <exception>
#include <utility>

#include "control/json_fields.h"

namespace ox {

ControlLine parse_control_line(std::string_view line) {
    try {
        auto object = parse_json_object(line);
        std::string type = take_text(object, "type");
        if (type.empty()) return std::monostate{};
        if (type == "ping") return Ping{int64_field(object, "ts", 0)};
        if (type == "request_idr") return RequestIdr{};
        if (type == "end_session") return EndSession{};
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
        return UnknownControlMessage{std::move(type)};
    } catch (const std::exception& error) {
        return MalformedLine{redacted_json_error(error.what())};
    }
}

std::string make_pong(int64_t ts) {
    return nlohmann::json{{"ts", ts}, {"type", "pong"}}.dump();
}

LineSplitter::LineSplitter(size_t max_length) : max_length_(max_length) {
    partial_.reserve(max_length);
}

void LineSplitter::append(std::string_view part) {
    length_ += part.size();
    if (length_ <= max_length_) {
        partial_ += part;
    } else {
        partial_.clear();
    }
}

void LineSplitter::feed(std::string_view bytes, const std::function<void(const Line&)>& on_line) {
    for (size_t end = bytes.find('\n'); end != std::string_view::npos; end = bytes.find('\n')) {
        append(bytes.substr(0, end));
        bytes.remove_prefix(end + 1);
        on_line(Line{.text = partial_, .length = length_});
        partial_.clear();
        length_ = 0;
    }
    append(bytes);
}

}  // namespace ox
