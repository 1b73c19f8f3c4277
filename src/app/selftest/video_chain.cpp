#include <algorithm>

#include "app/selftest/checks.h"
#include "video/capture_factory.h"
#include "video/video_encoder.h"

namespace ox::selftest {
namespace {

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 360;
constexpr size_t kFrames = 10;

/// Captures and encodes `kFrames` different pictures; fewer when something fails on the way.
std::vector<EncodedFrame> encode_frames(ICapture& capture, VideoEncoder& encoder) {
    std::vector<EncodedFrame> frames;
    Bytes before;
    for (size_t i = 0; i < kFrames; ++i) {
        CapturedFrame picture;
        EncodedFrame frame;
        if (capture.capture_frame(picture) != 0 || picture.data == before ||
            !encoder.encode_bgra(picture.pixels(), picture.width, picture.height, picture.timestamp,
                                 frame) ||
            frame.data.empty()) {
            break;
        }
        before = std::move(picture.data);
        frame.frame_id = static_cast<uint32_t>(i);
        frames.push_back(std::move(frame));
    }
    return frames;
}

/// Length of the start code at `position` (ITU-T H.264 annex B), or 0.
size_t start_code_at(const Bytes& data, size_t position) {
    size_t zeros = 0;
    while (position + zeros < data.size() && data[position + zeros] == 0)
        ++zeros;
    const bool ends_in_one = position + zeros < data.size() && data[position + zeros] == 1;
    return ends_in_one && zeros >= 2 ? zeros + 1 : 0;
}

/// Whether the access unit holds a slice of an IDR picture (NAL unit type 5).
bool has_idr_slice(const Bytes& data) {
    for (size_t i = 0; i < data.size(); ++i) {
        const size_t code = start_code_at(data, i);
        if (code == 0) continue;
        i += code;
        if (i < data.size() && (data[i] & 0x1FU) == 5) return true;
    }
    return false;
}

bool starts_with_keyframe(const std::vector<EncodedFrame>& frames) {
    return !frames.empty() && frames.front().keyframe && has_idr_slice(frames.front().data) &&
           std::ranges::all_of(frames,
                               [](const auto& f) { return f.keyframe == has_idr_slice(f.data); });
}

bool is_annex_b(const std::vector<EncodedFrame>& frames) {
    return !frames.empty() && std::ranges::all_of(frames, [](const EncodedFrame& frame) {
        return start_code_at(frame.data, 0) >= 3;
    });
}

/// Every frame's data packets put together are the frame again.
bool packetizes(const std::vector<EncodedFrame>& frames) {
    const Packetizer packetizer;
    for (const EncodedFrame& frame : frames) {
        std::vector<OutgoingPacket> packets;
        packetizer.packetize(frame, kStreamVideo, packets);
        if (packets.empty()) return false;
        Bytes joined;
        for (uint16_t i = 0; i < packets.front().header.count; ++i) {
            const auto bytes = packets[i].payload.bytes();
            joined.insert(joined.end(), bytes.begin(), bytes.end());
        }
        if (joined != frame.data) return false;
    }
    return !frames.empty();
}

}  // namespace

void check_video_chain() {
    const auto capture = make_capture({.backend = CaptureBackend::Synthetic,
                                       .synthetic_width = kWidth,
                                       .synthetic_height = kHeight});
    check(capture->init() && capture->width() == kWidth && capture->height() == kHeight,
          "synthetic capture init");

    VideoEncoder encoder;
    const bool encoder_ready = encoder.init({.codec = VideoCodec::H264,
                                             .backend = EncoderBackend::Software,
                                             .width = kWidth,
                                             .height = kHeight,
                                             .fps = 60,
                                             .bitrate_kbps = 4000});
    check(encoder_ready && encoder.name() == "libx264", "software H.264 encoder init (libx264)");
    if (encoder_ready) note("encoder", encoder.name());

    const std::vector<EncodedFrame> frames = encode_frames(*capture, encoder);
    check(frames.size() == kFrames, "10 synthetic frames encoded");
    check(starts_with_keyframe(frames), "an IDR/keyframe was produced");
    check(is_annex_b(frames), "bitstream is Annex-B (start codes present)");
    check(packetizes(frames), "packetizer produced UDP datagrams");
}

}  // namespace ox::selftest
