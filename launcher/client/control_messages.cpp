#include "launcher/client/control_messages.h"

#include <sodium.h>

#include <nlohmann/json.hpp>
#include <vector>

namespace ox::launcher {

namespace {

using Json = nlohmann::json;

std::string to_line(const Json& message) {
    return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json parse_object(std::string_view line) {
    Json message = Json::parse(line, nullptr, false);
    return message.is_object() ? message : Json::object();
}

bool has_type(const Json& message, std::string_view type) {
    const auto it = message.find("type");
    return it != message.end() && it->is_string() && it->get_ref<const std::string&>() == type;
}

bool read_key(const Json& message, const char* name, Secret& key) {
    constexpr size_t kKeyBytes = 32;
    const auto it = message.find(name);
    if (it == message.end() || !it->is_string()) return false;
    const auto& text = it->get_ref<const std::string&>();
    key.resize(kKeyBytes);
    size_t length = 0;
    return sodium_base642bin(key.data(), key.size(), text.data(), text.size(), nullptr, &length,
                             nullptr, sodium_base64_VARIANT_ORIGINAL) == 0 &&
           length == kKeyBytes;
}

}  // namespace

bool parse_codec(std::string_view name, Codec& codec) {
    codec = name == "hevc" ? Codec::Hevc : Codec::H264;
    return name == "hevc" || name == "h264";
}

std::string make_auth_line(const AuthRequest& request) {
    Json message = {{"type", "auth"},
                    {"token", request.token},
                    {"codec", static_cast<int32_t>(request.codec)},
                    {"width", request.width},
                    {"height", request.height},
                    {"fps", request.fps},
                    {"bitrate", request.bitrate_kbps},
                    {"caps", 0}};
    if (!request.udp_ip.empty()) message["udp_ip"] = request.udp_ip;
    return to_line(message);
}

bool parse_session_ready(std::string_view line, SessionKeySet& keys, std::string& error) {
    const Json message = parse_object(line);
    if (!has_type(message, "session_ready")) {
        error = "the agent's answer is no session_ready";
        return false;
    }
    if (!read_key(message, "video_key", keys.video_key) ||
        !read_key(message, "audio_key", keys.audio_key) ||
        !read_key(message, "input_key", keys.input_key)) {
        error = "the agent's session_ready lacks a 32-byte key";
        return false;
    }
    return true;
}

std::string make_ping_line(int64_t ts) {
    return to_line({{"type", "ping"}, {"ts", ts}});
}

std::optional<int64_t> parse_pong(std::string_view line) {
    const Json message = parse_object(line);
    if (!has_type(message, "pong")) return std::nullopt;
    const auto it = message.find("ts");
    if (it == message.end() || !it->is_number_integer()) return std::nullopt;
    return it->get<int64_t>();
}

std::string make_set_bitrate_line(int32_t kbps) {
    return to_line({{"type", "set_settings"}, {"bitrate", kbps}});
}

std::string make_stats_line(const ReceptionReport& report) {
    return to_line({{"type", "stats"},
                    {"rtt_ms", report.rtt_ms},
                    {"packet_loss_pct", report.packet_loss_pct},
                    {"decoded_fps", report.decoded_fps},
                    {"jitter_ms", report.jitter_ms}});
}

}  // namespace ox::launcher
