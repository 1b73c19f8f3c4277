#include "saas/platform_messages.h"

#include <sodium.h>

#include <cmath>
#include <nlohmann/json.hpp>

namespace ox {
namespace {

using nlohmann::json;

std::string dump(const json& object) {
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

double finite(double value) {
    return std::isfinite(value) ? value : 0.0;
}

/// The member `key` if there is one that is not null.
const json* member(const json& object, const char* key) {
    if (!object.is_object()) return nullptr;
    const auto found = object.find(key);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

// These three throw json::type_error when the member has another type.

std::string json_value_or(const json& object, const char* key, const std::string& fallback) {
    const json* value = member(object, key);
    return value ? value->get<std::string>() : fallback;
}

bool json_value_or(const json& object, const char* key, bool fallback) {
    const json* value = member(object, key);
    return value ? value->get<bool>() : fallback;
}

/// Integers are cut to 32 bits; a float is truncated, and one outside the range becomes the range's
/// end (a plain conversion would be undefined).
uint32_t json_value_or(const json& object, const char* key, uint32_t fallback) {
    const json* value = member(object, key);
    if (!value) return fallback;
    if (!value->is_number_float()) return value->get<uint32_t>();
    const double number = value->get<double>();
    if (!(number > 0.0)) return 0;
    return number >= UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(number);
}

/// Standard base64 with padding; empty when the text is anything else.
Secret decode_base64(const std::string& text) {
    Secret bytes(text.size());
    size_t size = 0;
    if (text.empty() ||
        sodium_base642bin(bytes.data(), bytes.size(), text.data(), text.size(), nullptr, &size,
                          nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
        size = 0;
    }
    bytes.resize(size);
    return bytes;
}

/// Takes the key out of `message`, so that nothing of it is left there.
Secret take_key(json& message) {
    const auto found = message.find("encryption_key");
    if (found == message.end() || found->is_null()) return {};
    auto* text = found->get_ptr<std::string*>();
    if (text == nullptr) return decode_base64(found->get<std::string>());  // throws
    Secret key = decode_base64(*text);
    wipe(*text);
    return key;
}

PrepareSessionParams parse_prepare(json& message) {
    PrepareSessionParams params;
    params.encryption_key = take_key(message);
    params.session_id = json_value_or(message, "session_id", params.session_id);
    params.client_id = json_value_or(message, "client_id", params.client_id);
    params.max_duration_sec = json_value_or(message, "max_duration_sec", params.max_duration_sec);
    params.session_token_sha256 =
        json_value_or(message, "session_token_sha256", params.session_token_sha256);

    if (const json* constraints = member(message, "constraints");
        constraints && constraints->is_object()) {
        params.codec = json_value_or(*constraints, "codec", params.codec);
        params.resolution = json_value_or(*constraints, "resolution", params.resolution);
        params.fps = json_value_or(*constraints, "max_fps", params.fps);
        params.bitrate_kbps = json_value_or(*constraints, "bitrate_kbps", params.bitrate_kbps);
    }
    if (const json* isolation = member(message, "session_isolation");
        isolation && isolation->is_object()) {
        params.hide_desktop = json_value_or(*isolation, "hide_desktop", params.hide_desktop);
        params.launch_steam = json_value_or(*isolation, "launch_steam", params.launch_steam);
        params.steam_app_id = json_value_or(*isolation, "steam_app_id", params.steam_app_id);
    }
    return params;
}

PlatformMessage parse_typed(const std::string& type, json& message) {
    if (type == "ping") return BackendPing{};
    if (type == "terminate_session") {
        TerminateSession terminate;
        terminate.reason = json_value_or(message, "reason", terminate.reason);
        terminate.session_id = json_value_or(message, "session_id", terminate.session_id);
        return terminate;
    }
    if (type == "prepare_session") return parse_prepare(message);
    return UnknownMessage{type};
}

}  // namespace

std::string register_message(const SaasConfig& config) {
    json message = {
        {"type", "register"},
        {"agent_version", config.agent_version},
        {"gpu_model", config.system_info.gpu_model},
        {"gpu_vram_mb", config.system_info.gpu_vram_mb},
        {"cpu_model", config.system_info.cpu_model},
        {"ram_mb", config.system_info.ram_mb},
        {"os_version", config.system_info.os_version},
        {"supported_codecs", config.supported_codecs},
        {"port_base", config.port_base},
    };
    if (!config.max_resolution.empty()) message["max_resolution"] = config.max_resolution;
    if (config.max_fps != 0) message["max_fps"] = config.max_fps;
    return dump(message);
}

std::string heartbeat_message(float cpu_pct, double ram_mb_free) {
    return dump({{"type", "heartbeat"},
                 {"status", "online"},
                 {"cpu_pct", finite(double{cpu_pct})},
                 {"gpu_pct", 0.0},
                 {"ram_mb_free", finite(ram_mb_free)}});
}

std::string pong_message() {
    return R"({"type":"pong"})";
}

std::string session_ready_message(const std::string& session_id, const std::string& public_ip,
                                  uint16_t video, uint16_t audio, uint16_t input) {
    return dump({{"type", "session_ready"},
                 {"session_id", session_id},
                 {"public_ip", public_ip},
                 {"ports", {{"video", video}, {"audio", audio}, {"input", input}}}});
}

std::string session_ended_message(const std::string& session_id, const std::string& reason,
                                  uint32_t duration_sec) {
    return dump({{"type", "session_ended"},
                 {"session_id", session_id},
                 {"reason", reason},
                 {"duration_sec", duration_sec}});
}

std::string session_stats_message(const std::string& session_id, const SessionStats& stats) {
    return dump({{"type", "session_stats"},
                 {"session_id", session_id},
                 {"fps", finite(double{stats.fps})},
                 {"bitrate_kbps", finite(double{stats.bitrate_kbps})},
                 {"latency_ms", finite(double{stats.latency_ms})},
                 {"packet_loss_pct", finite(double{stats.packet_loss_pct})},
                 {"uptime_sec", finite(double{stats.uptime_sec})}});
}

std::string error_message(const std::string& code, const std::string& message,
                          const std::string& session_id) {
    json object = {{"type", "error"}, {"code", code}, {"message", message}};
    if (!session_id.empty()) object["session_id"] = session_id;
    return dump(object);
}

PlatformMessage parse_platform_message(std::string_view text) {
    using Kind = BadMessage::Kind;
    json message = json::parse(text, nullptr, false);
    if (message.is_discarded()) return BadMessage{Kind::InvalidJson, "invalid JSON"};
    std::string type;
    try {
        type = json_value_or(message, "type", type);
        return parse_typed(type, message);
    } catch (const json::exception& error) {
        return BadMessage{type == "prepare_session" ? Kind::BadPrepare : Kind::WrongType,
                          error.what()};
    }
}

}  // namespace ox
