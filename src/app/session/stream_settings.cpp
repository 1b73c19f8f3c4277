#include "app/session/stream_settings.h"

#include <algorithm>

#include "control/capabilities.h"

namespace ox {
namespace {

uint32_t clamp_to(int64_t value, int64_t low, int64_t high) {
    return static_cast<uint32_t>(std::clamp(value, low, high));
}

uint32_t even_pixels(int32_t requested) {
    return clamp_to(requested, 16, 4096) & ~1U;
}

}  // namespace

VideoCodec negotiated_codec(int32_t requested) {
    return requested == 1 ? VideoCodec::Hevc : VideoCodec::H264;
}

EncoderSettings encoder_settings(const TcpControlServer::RequestedStream& requested,
                                 EncoderBackend backend) {
    return {.codec = negotiated_codec(requested.codec),
            .backend = backend,
            .width = even_pixels(requested.width),
            .height = even_pixels(requested.height),
            .fps = clamp_to(requested.fps, 1, 120),
            .bitrate_kbps = clamp_to(requested.bitrate, kMinBitrateKbps, kMaxBitrateKbps)};
}

uint32_t host_caps(bool media_rfi) {
    return media_rfi && VideoEncoder::any_backend_invalidates_refs() ? caps::RFI : 0;
}

const char* codec_name(VideoCodec codec) {
    return codec == VideoCodec::Hevc ? "HEVC" : "H.264";
}

std::string encoder_label(const std::string& encoder_name) {
    if (encoder_name.find("nvenc") != std::string::npos) return "NVENC";
    if (encoder_name.find("vaapi") != std::string::npos) return "VA-API";
    return encoder_name.starts_with("lib") ? encoder_name.substr(3) : encoder_name;
}

uint32_t pacing_rate_bps(uint32_t bitrate_kbps) {
    return bitrate_kbps * 1500U;
}

}  // namespace ox
