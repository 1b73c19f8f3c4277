#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "control/session_keys.h"

namespace ox::launcher {

// The lines of the control channel, without their line feed.

inline constexpr std::string_view kRequestIdrLine = R"({"type":"request_idr"})";
inline constexpr std::string_view kEndSessionLine = R"({"type":"end_session"})";

/// By its number in the auth line.
enum class Codec : int32_t { H264 = 0, Hevc = 1 };
/// "h264" or "hevc"; false for anything else.
bool parse_codec(std::string_view name, Codec& codec);

struct AuthRequest {
    std::string token;
    Codec codec = Codec::H264;
    int32_t width = 0;
    int32_t height = 0;
    int32_t fps = 0;
    int32_t bitrate_kbps = 0;
    std::string udp_ip;  ///< left out when empty
};
std::string make_auth_line(const AuthRequest& request);

/// Reads the agent's answer into `keys`. False, with a text for the user in `error`, when the line
/// is no `session_ready` with three 32-byte keys.
bool parse_session_ready(std::string_view line, SessionKeySet& keys, std::string& error);

std::string make_ping_line(int64_t ts);
/// The `ts` of a pong; nothing for any other line.
std::optional<int64_t> parse_pong(std::string_view line);

std::string make_set_bitrate_line(int32_t kbps);

/// Sent once a second.
struct ReceptionReport {
    double rtt_ms = 0;
    double packet_loss_pct = 0;
    double decoded_fps = 0;
    double jitter_ms = 0;
};
std::string make_stats_line(const ReceptionReport& report);

}  // namespace ox::launcher
