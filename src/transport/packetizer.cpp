#include "transport/packetizer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>

#include "log/log.h"

namespace ox {
namespace {

constexpr size_t kMaxPackets = std::numeric_limits<uint16_t>::max();
constexpr size_t kMaxRepairPackets = 255;
constexpr uint8_t kRepairGroupBit = 0x80;
constexpr double kRatioUnit = 10000.0;
constexpr float kMaxRatio = 0.5F;

constexpr size_t divide_up(size_t value, size_t by) {
    return value / by + (value % by != 0);
}

size_t repair_packet_count(size_t data_packets, bool protect) {
    if (data_packets <= 1 || !protect) return 0;
    return std::min({divide_up(data_packets, Packetizer::kGroupPackets), kMaxRepairPackets,
                     kMaxPackets - data_packets});
}

// The bytes of data packet `index`.
std::span<const uint8_t> slice(std::span<const uint8_t> frame, size_t index) {
    const size_t offset = index * kVideoPayloadBytes;
    return frame.subspan(offset, std::min(kVideoPayloadBytes, frame.size() - offset));
}

// Fills `out` with the XOR of `packets` slices from `first` on, short ones padded with zeros.
void fill_parity(std::span<const uint8_t> frame, size_t first, size_t packets, PacketPayload& out) {
    out.assign(slice(frame, first));
    const size_t filled = out.size();
    out.resize(kVideoPayloadBytes);
    std::fill(out.data() + filled, out.data() + kVideoPayloadBytes, uint8_t{0});
    for (size_t i = first + 1; i < first + packets; ++i) {
        const std::span<const uint8_t> bytes = slice(frame, i);
        xor_into(out.data(), bytes.data(), bytes.size());
    }
}

}  // namespace

void xor_into(uint8_t* __restrict dst, const uint8_t* __restrict src, size_t length) noexcept {
    for (size_t i = 0; i < length; ++i)
        dst[i] = static_cast<uint8_t>(dst[i] ^ src[i]);
}

void Packetizer::set_repair_ratio(float ratio) {
    // Written so that NaN, too, becomes 0.
    const float clamped = ratio > 0.0F ? std::min(ratio, kMaxRatio) : 0.0F;
    ratio_e4_ = static_cast<uint32_t>(std::lround(double{clamped} * kRatioUnit));
}

float Packetizer::repair_ratio() const {
    return static_cast<float>(ratio_e4_ / kRatioUnit);
}

void Packetizer::packetize(const EncodedFrame& frame, uint32_t stream,
                           std::vector<OutgoingPacket>& out) const {
    const std::span<const uint8_t> bytes = frame.data;
    if (bytes.empty()) return;
    const size_t count = divide_up(bytes.size(), kVideoPayloadBytes);
    if (count > kMaxPackets) {
        OX_ERROR("Packetizer: frame %u too large (%zu bytes -> %zu packets) — dropped",
                 frame.frame_id, bytes.size(), count);
        return;
    }
    const size_t repairs = repair_packet_count(count, frame.keyframe || ratio_e4_ > 0);
    out.reserve(out.size() + count + repairs);

    PacketHeader common;
    common.stream = stream;
    common.frame_id = frame.frame_id;
    common.count = static_cast<uint16_t>(count);
    if (frame.keyframe) common.flags |= packet_flags::KEYFRAME;
    if (stream == kStreamAudio) common.flags |= packet_flags::AUDIO;

    for (size_t i = 0; i < count; ++i) {
        OutgoingPacket& packet = out.emplace_back();
        packet.header = common;
        packet.header.index = static_cast<uint16_t>(i);
        if (i == 0) packet.header.timestamp = frame.timestamp;
        if (i == count - 1) packet.header.flags |= packet_flags::LAST_IN_FRAME;
        packet.payload.assign(slice(bytes, i));
    }
    for (size_t j = 0; j < repairs; ++j) {
        OutgoingPacket& packet = out.emplace_back();
        packet.header = common;
        packet.header.index = static_cast<uint16_t>(count + j);
        packet.header.flags |= packet_flags::FEC_PACKET;
        packet.header.group = static_cast<uint8_t>(kRepairGroupBit | j);
        const size_t first = j * kGroupPackets;
        fill_parity(bytes, first, std::min(kGroupPackets, count - first), packet.payload);
    }
    // Parity of a single packet would be its copy. Same header and bytes, so the same nonce seals
    // the same plaintext.
    if (count == 1 && stream == kStreamVideo) out.push_back(out.back());
}

}  // namespace ox
