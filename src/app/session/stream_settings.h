#pragma once

#include <cstdint>

#include "control/auth_line.h"
#include "video/video_encoder.h"

namespace ox {

inline constexpr uint32_t kMinBitrateKbps = 200;
inline constexpr uint32_t kMaxBitrateKbps = 200'000;

/// The codec of a launcher's number; H.264 for an unknown one.
VideoCodec negotiated_codec(int32_t requested);

/// Clamped: 16..4096 pixels (even, for 4:2:0), 1..120 frames per second, 200..200000 kbit/s.
EncoderSettings encoder_settings(const RequestedStream& requested, EncoderBackend backend);

/// The `caps` bits: invalidation of references when switched on and some encoder has it.
uint32_t host_caps(bool media_rfi);

/// The name for the owner: "H.264".
const char* codec_name(VideoCodec codec);

/// One and a half times the video bitrate.
uint32_t pacing_rate_bps(uint32_t bitrate_kbps);

}  // namespace ox
