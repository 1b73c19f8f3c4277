#pragma once

#include <cstdint>
#include <string>

#include "control/tcp_control_server.h"
#include "video/video_encoder.h"

namespace ox {

inline constexpr uint32_t kMinBitrateKbps = 200;
inline constexpr uint32_t kMaxBitrateKbps = 200'000;

/// The codec a launcher's number stands for; H.264 for every number but 1.
VideoCodec negotiated_codec(int32_t requested);

/// Brings what the launcher asked for into what can be encoded: 16..4096 pixels (rounded down to
/// even numbers, which 4:2:0 pictures need), 1..120 frames per second, 200..200000 kbit/s.
EncoderSettings encoder_settings(const TcpControlServer::RequestedStream& requested,
                                 EncoderBackend backend);

/// What the agent can do for a launcher, as `caps` bits: nothing but reference invalidation, when
/// it is switched on and some encoder of this build has it.
uint32_t host_caps(bool media_rfi);

/// "H.264" or "HEVC".
const char* codec_name(VideoCodec codec);

/// What the owner reads as the encoder: "NVENC", "VA-API", "x264", "x265".
std::string encoder_label(const std::string& encoder_name);

/// Pacing rate for a video bitrate: one and a half times the bitrate, in bits per second.
uint32_t pacing_rate_bps(uint32_t bitrate_kbps);

}  // namespace ox
