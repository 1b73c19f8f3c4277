#include <algorithm>
#include <numeric>

#include "app/selftest/groups.h"
#include "app/selftest/launcher_side.h"
#include "transport/encryption.h"
#include "transport/packetizer.h"
#include "transport/xor_parity.h"

namespace ox::selftest {
namespace {

constexpr size_t kFrameBytes = 3986;
constexpr uint64_t kCaptureTime = 1234567890123;
constexpr float kRepairRatio = 0.1F;
constexpr size_t kDataPackets = 4;
constexpr size_t kFullPayload = 1162;
constexpr size_t kLastPayload = kFrameBytes - 3 * kFullPayload;
constexpr size_t kTag = 16;

using Packets = std::vector<OutgoingPacket>;

EncodedFrame test_frame(bool keyframe) {
    EncodedFrame frame;
    frame.data.resize(kFrameBytes);
    for (size_t i = 0; i < kFrameBytes; ++i)
        frame.data[i] = static_cast<uint8_t>(i * 31 + i / 251);
    frame.frame_id = 7;
    frame.timestamp = kCaptureTime;
    frame.keyframe = keyframe;
    return frame;
}

Packets packetize(const EncodedFrame& frame, float repair_ratio) {
    Packetizer packetizer;
    packetizer.set_repair_ratio(repair_ratio);
    Packets packets;
    packetizer.packetize(frame, 1, packets);
    return packets;
}

bool is_data_packet(const OutgoingPacket& packet, size_t index) {
    const bool last = index + 1 == kDataPackets;
    const PacketHeader& h = packet.header;
    return h.stream == 1 && h.frame_id == 7 && h.index == index && h.count == kDataPackets &&
           h.flags == (last ? 0x09 : 0x01) && h.group == 0 &&
           h.timestamp == (index == 0 ? kCaptureTime : 0) &&
           packet.payload.size() == (last ? kLastPayload : kFullPayload);
}

bool splits_into_data_packets(const Packets& packets) {
    if (packets.size() < kDataPackets) return false;
    for (size_t i = 0; i < kDataPackets; ++i) {
        if (!is_data_packet(packets[i], i)) return false;
    }
    return true;
}

/// The fifth packet is the XOR of the four, padded with zeros.
bool has_repair_packet(const Packets& packets) {
    if (packets.size() != kDataPackets + 1) return false;
    const OutgoingPacket& repair = packets.back();
    if (repair.payload.size() != kFullPayload || repair.header.index != kDataPackets) return false;
    Bytes expected(kFullPayload);
    for (size_t i = 0; i < kDataPackets; ++i) {
        const auto bytes = packets[i].payload.bytes();
        for (size_t k = 0; k < bytes.size(); ++k)
            expected[k] ^= bytes[k];
    }
    return std::ranges::equal(expected, repair.payload.bytes());
}

struct Sealed {
    PacketHeader header;
    Bytes bytes;
};

std::vector<Sealed> seal(const Encryption& encryption, const Packets& packets) {
    std::vector<Sealed> result;
    for (const OutgoingPacket& packet : packets) {
        Bytes bytes(packet.payload.size() + kTag);
        size_t length = 0;
        if (!encryption.encrypt_packet(packet.header, packet.payload.data(), packet.payload.size(),
                                       bytes.data(), length)) {
            return {};
        }
        bytes.resize(length);
        result.push_back({packet.header, std::move(bytes)});
    }
    return result;
}

std::optional<Bytes> open(const Key& key, const Sealed& sealed) {
    Bytes plain(sealed.bytes.size());
    size_t length = 0;
    if (!decrypt_packet_with_key(key.data(), sealed.header, sealed.bytes.data(),
                                 sealed.bytes.size(), plain.data(), length)) {
        return std::nullopt;
    }
    plain.resize(length);
    return plain;
}

/// By the agent's own opener and by one that knows the wire format alone.
bool opens_to(const Key& key, const Sealed& sealed, std::span<const uint8_t> plain) {
    const auto own = open(key, sealed);
    const auto launcher = open_as_launcher(key, sealed.header, sealed.bytes, 0);
    return own && launcher && *own == *launcher && std::ranges::equal(*own, plain);
}

/// The frame from the opened packets; `lost` is a data packet to be restored from the repair
/// packet, or `kDataPackets` for none.
Bytes reassemble(const std::vector<Bytes>& opened, size_t lost) {
    if (opened.size() != kDataPackets + 1) return {};
    Bytes frame;
    for (size_t i = 0; i < kDataPackets; ++i) {
        Bytes payload = opened[i];
        if (i == lost) {
            payload = opened.back();
            for (size_t k = 0; k < kDataPackets; ++k) {
                if (k != lost) xor_into(payload.data(), opened[k].data(), opened[k].size());
            }
            payload.resize(std::min(payload.size(), kFrameBytes - frame.size()));
        }
        frame.insert(frame.end(), payload.begin(), payload.end());
    }
    return frame;
}

bool reassembles_with_any_one_lost(const std::vector<Bytes>& opened, const Bytes& source) {
    for (size_t lost = 0; lost <= kDataPackets; ++lost) {
        if (reassemble(opened, lost) != source) return false;
    }
    return true;
}

bool every_tag_bit_matters(const Key& key, Sealed sealed) {
    if (sealed.bytes.size() < kTag) return false;
    for (size_t bit = 0; bit < kTag * 8; ++bit) {
        uint8_t& byte = sealed.bytes[sealed.bytes.size() - 1 - bit / 8];
        const auto mask = static_cast<uint8_t>(1U << bit % 8);
        byte ^= mask;
        if (open(key, sealed)) return false;
        byte ^= mask;
    }
    return true;
}

}  // namespace

void check_media_packets() {
    const EncodedFrame frame = test_frame(true);
    const Packets packets = packetize(frame, kRepairRatio);
    check(splits_into_data_packets(packets), "frame split into 4 data packets");
    // A keyframe has parity anyway, any other frame by the ratio.
    check(has_repair_packet(packets) &&
              has_repair_packet(packetize(test_frame(false), kRepairRatio)) &&
              packetize(test_frame(false), 0).size() == kDataPackets,
          "repair symbol per parity group");
    check(!packets.empty() && packets.back().header.flags == 0x03 &&
              packets.back().header.group == 0x80,
          "repair symbols carry the grouped-scheme flag");

    const Key key = test_key(1);
    Encryption encryption;
    check(encryption.set_key(key.data(), key.size()), "encryption key set");

    const std::vector<Sealed> sealed = seal(encryption, packets);
    const bool all_sealed = !sealed.empty() && sealed.size() == packets.size();
    constexpr size_t kLargestDatagram = 1200;
    check(all_sealed && std::ranges::all_of(sealed,
                                            [](const Sealed& s) {
                                                return sizeof(PacketHeader) + s.bytes.size() <=
                                                       kLargestDatagram;
                                            }),
          "ciphertext sizing");
    check(all_sealed && std::ranges::equal(sealed, packets,
                                           [](const Sealed& s, const OutgoingPacket& p) {
                                               return s.bytes.size() == p.payload.size() + kTag;
                                           }),
          "ciphertext = plaintext + 16B tag");
    check(all_sealed && std::ranges::equal(sealed, packets,
                                           [&](const Sealed& s, const OutgoingPacket& p) {
                                               return opens_to(key, s, p.payload.bytes());
                                           }),
          "every packet encrypted + authenticated + decrypted");

    std::vector<Bytes> opened;
    opened.reserve(sealed.size());
    for (const Sealed& packet : sealed)
        opened.push_back(open(key, packet).value_or(Bytes{}));
    check(reassembles_with_any_one_lost(opened, frame.data),
          "reassembled bitstream identical to source");
    check(all_sealed && every_tag_bit_matters(key, sealed.front()),
          "tampered tag rejected by Poly1305");
    check(all_sealed && !open(test_key(2), sealed.front()), "wrong key rejected");
}

}  // namespace ox::selftest
