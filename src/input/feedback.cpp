#include "input/feedback.h"

#include <algorithm>
#include <cstring>

#include "base/byte_order.h"

namespace ox {
namespace {

using Payload = std::array<uint8_t, InputPacket::kPayloadBytes>;

Payload payload_of(const InputPacket& packet) {
    std::array<uint8_t, sizeof(InputPacket)> bytes{};
    std::memcpy(bytes.data(), &packet, sizeof packet);
    Payload payload{};
    std::copy_n(bytes.begin() + InputPacket::kPayloadOffset, payload.size(), payload.begin());
    return payload;
}

}  // namespace

RfiRequest parse_rfi_request(const InputPacket& packet) {
    const Payload payload = payload_of(packet);
    return {.last_delivered = load_le<uint32_t>(payload.data()),
            .first_missing = load_le<uint32_t>(payload.data() + 4),
            .last_missing = load_le<uint32_t>(payload.data() + 8),
            .epoch = (payload[12] & 0x01U) != 0,
            .attempt = payload[13],
            .all_zero = std::all_of(payload.begin(), payload.end(),
                                    [](uint8_t byte) { return byte == 0; })};
}

std::string_view rfi_rejection(const RfiRequest& request) {
    constexpr uint32_t kMaxSpan = 255;
    constexpr uint8_t kMaxAttempt = 2;
    if (request.last_delivered == 0) return "last_delivered == 0";
    if (request.last_delivered == UINT32_MAX) return "last_delivered + 1 overflows";
    if (request.first_missing != request.last_delivered + 1) return "first_missing != L + 1";
    if (request.last_missing < request.first_missing) return "last_missing < first_missing";
    if (request.last_missing - request.first_missing >= kMaxSpan) return "span > 255";
    if (!request.epoch) return "epoch bit unset";
    if (request.attempt > kMaxAttempt) return "attempt > 2";
    return {};
}

MediaFeedback parse_media_feedback(const InputPacket& packet) {
    const Payload payload = payload_of(packet);
    return {.loss_pct = static_cast<float>(load_le<uint16_t>(payload.data())) / 100.0F,
            .rtt_ms = static_cast<float>(load_le<uint16_t>(payload.data() + 2)),
            .decoded_fps = static_cast<float>(load_le<uint16_t>(payload.data() + 4)) / 10.0F,
            .keyframe_wanted = (payload[6] & 0x01U) != 0};
}

}  // namespace ox
