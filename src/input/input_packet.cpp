#include "input/input_packet.h"

#include <sodium.h>

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

bool open_input_datagram(const uint8_t* key, std::span<const uint8_t> datagram,
                         InputPacket& packet) {
    if (datagram.size() != kInputDatagramBytes) return false;
    std::array<uint8_t, sizeof(InputPacket)> plain{};
    unsigned long long plain_length = 0;
    if (::crypto_aead_chacha20poly1305_ietf_decrypt(
            plain.data(), &plain_length, nullptr, datagram.data() + kInputNonceBytes,
            kInputDatagramBytes - kInputNonceBytes, nullptr, 0, datagram.data(), key) != 0) {
        return false;
    }
    std::memcpy(&packet, plain.data(), sizeof packet);
    return true;
}

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
