#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/secret.h"
#include "saas/saas_config.h"

/// The platform's JSON messages: compact, keys ascending, no invalid UTF-8. Pure.
namespace ox {

struct PrepareSessionParams {
    std::string session_id;
    std::string client_id;
    Secret encryption_key;             ///< the platform's master key
    std::string session_token_sha256;  ///< hex; empty: every launcher is refused
    uint32_t max_duration_sec = 3600;
    std::string codec = "h264";
    std::string resolution = "1920x1080";
    uint32_t fps = 60;
    uint32_t bitrate_kbps = 15000;
    bool hide_desktop = false;
    bool launch_steam = false;
    std::string steam_app_id;
};

std::string register_message(const SaasConfig& config);
std::string heartbeat_message(float cpu_pct, double ram_mb_free);
std::string pong_message();
std::string session_ready_message(const std::string& session_id, const std::string& public_ip,
                                  uint16_t video, uint16_t audio, uint16_t input);
std::string session_ended_message(const std::string& session_id, const std::string& reason,
                                  uint32_t duration_sec);

struct SessionStats {
    float fps = 0.0F;
    float bitrate_kbps = 0.0F;
    float latency_ms = 0.0F;
    float packet_loss_pct = 0.0F;
    float uptime_sec = 0.0F;
};
/// Infinity and NaN, which JSON does not have, become 0.
std::string session_stats_message(const std::string& session_id, const SessionStats& stats);

/// An empty `session_id` is left out.
std::string error_message(const std::string& code, const std::string& message,
                          const std::string& session_id);

struct BackendPing {};

struct TerminateSession {
    std::string session_id;
    std::string reason = "saas_terminated";
};

struct BadMessage {
    enum class Kind {
        InvalidJson,
        WrongType,   ///< of a member
        BadPrepare,  ///< a prepare_session with a member of the wrong type
    };
    Kind kind = Kind::InvalidJson;
    std::string detail;  ///< no part of the message but type names
};

struct UnknownMessage {
    std::string type;
};

using PlatformMessage =
    std::variant<BackendPing, TerminateSession, PrepareSessionParams, BadMessage, UnknownMessage>;

PlatformMessage parse_platform_message(std::string_view text);

}  // namespace ox
