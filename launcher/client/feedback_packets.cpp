#include "launcher/client/feedback_packets.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "base/byte_order.h"

namespace ox::launcher {

namespace {

using Payload = std::array<uint8_t, InputPacket::kPayloadBytes>;

InputPacket with_payload(InputKind kind, const Payload& payload) {
    InputPacket packet;
    packet.kind = static_cast<uint8_t>(kind);
    std::memcpy(reinterpret_cast<uint8_t*>(&packet) + InputPacket::kPayloadOffset, payload.data(),
                payload.size());
    return packet;
}

uint16_t to_u16(double value) {
    return static_cast<uint16_t>(std::lround(std::clamp(value, 0.0, 65535.0)));
}

}  // namespace

InputPacket make_keyframe_request() {
    return with_payload(InputKind::KeyframeRequest, {});
}

InputPacket make_lost_frames_request(const LostFrames& lost) {
    constexpr uint8_t kEpochBit = 1;
    Payload payload{};
    store_le(payload.data(), lost.last_delivered);
    store_le(payload.data() + 4, lost.first_missing);
    store_le(payload.data() + 8, lost.last_missing);
    payload[12] = kEpochBit;
    payload[13] = lost.attempt;
    return with_payload(InputKind::RfiRequest, payload);
}

InputPacket make_media_feedback(const MediaReport& report) {
    Payload payload{};
    store_le(payload.data(), to_u16(report.loss_pct * 100));
    store_le(payload.data() + 2, to_u16(report.rtt_ms));
    store_le(payload.data() + 4, to_u16(report.decoded_fps * 10));
    payload[6] = report.keyframe_wanted ? 1 : 0;
    return with_payload(InputKind::MediaFeedback, payload);
}

}  // namespace ox::launcher
