#include "app/session/stream_settings.h"

#include <algorithm>

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
    return codec_numbered(requested).value_or(VideoCodec::H264);
}

EncoderSettings encoder_settings(const RequestedStream& requested, EncoderBackend backend) {
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
    return codec_info(codec).display_name;
}

uint32_t pacing_rate_bps(uint32_t bitrate_kbps) {
    return bitrate_kbps * 1500U;
}

}  // namespace ox
