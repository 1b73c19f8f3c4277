// Media packets, session keys and input packets.

#include <sodium.h>

#include <algorithm>
#include <numeric>

#include "app/selftest/checks.h"
#include "control/session_keys.h"
#include "input/input_packet.h"

namespace ox::selftest {
namespace {

constexpr size_t kFrameBytes = 3986;
constexpr size_t kDataPackets = 4;

using Packets = std::vector<OutgoingPacket>;

Bytes test_bitstream() {
    Bytes bytes(kFrameBytes);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<uint8_t>(i * 31 + i / 251);
    return bytes;
}

bool splits_into_data_packets(const Packets& packets) {
    if (packets.size() < kDataPackets) return false;
    size_t bytes = 0;
    for (size_t i = 0; i < kDataPackets; ++i) {
        const PacketHeader& h = packets[i].header;
        const bool last = (h.flags & packet_flags::LAST_IN_FRAME) != 0;
        if (h.index != i || h.count != kDataPackets || last != (i + 1 == kDataPackets)) {
            return false;
        }
        bytes += packets[i].payload.size();
    }
    return bytes == kFrameBytes;
}

/// The frame from its opened packets, with data packet `lost` restored from the repair packet.
Bytes reassemble_without(std::vector<Bytes> packets, size_t lost) {
    Bytes restored = packets.back();
    for (size_t i = 0; i < kDataPackets; ++i) {
        if (i != lost) xor_into(restored.data(), packets[i].data(), packets[i].size());
    }
    restored.resize(packets[lost].size());
    packets[lost] = std::move(restored);
    Bytes frame;
    for (size_t i = 0; i < kDataPackets; ++i)
        frame.insert(frame.end(), packets[i].begin(), packets[i].end());
    return frame;
}

bool reassembles_without_any_one(const std::vector<Bytes>& packets) {
    if (packets.size() != kDataPackets + 1) return false;
    for (size_t lost = 0; lost < kDataPackets; ++lost) {
        if (reassemble_without(packets, lost) != test_bitstream()) return false;
    }
    return true;
}

bool every_tag_bit_matters(const Key& key, const PacketHeader& header, Bytes sealed) {
    for (size_t bit = 0; bit < kTagBytes * 8; ++bit) {
        uint8_t& byte = sealed[sealed.size() - 1 - bit / 8];
        const auto mask = static_cast<uint8_t>(1U << bit % 8);
        byte ^= mask;
        if (open_packet(key, header, sealed)) return false;
        byte ^= mask;
    }
    return true;
}

}  // namespace

Key test_key(uint8_t seed) {
    Key key{};
    for (size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<uint8_t>(seed + 7 * i);
    return key;
}

Packets packetize_test_frame(bool keyframe, float repair_ratio) {
    EncodedFrame frame;
    frame.data = test_bitstream();
    frame.frame_id = 7;
    frame.keyframe = keyframe;
    Packetizer packetizer;
    packetizer.set_repair_ratio(repair_ratio);
    Packets packets;
    packetizer.packetize(frame, kStreamVideo, packets);
    return packets;
}

Bytes seal_packet(const Encryption& encryption, const PacketHeader& header,
                  std::span<const uint8_t> plain) {
    Bytes sealed(plain.size() + kTagBytes);
    size_t length = 0;
    encryption.encrypt_packet(header, plain.data(), plain.size(), sealed.data(), length);
    sealed.resize(length);
    return sealed;
}

std::optional<Bytes> open_packet(const Key& key, const PacketHeader& header,
                                 std::span<const uint8_t> sealed) {
    Bytes plain(sealed.size());
    size_t length = 0;
    if (!decrypt_packet_with_key(key.data(), header, sealed.data(), sealed.size(), plain.data(),
                                 length)) {
        return std::nullopt;
    }
    plain.resize(length);
    return plain;
}

Bytes seal_input(const Key& key, const InputBytes& packet) {
    Bytes datagram(kInputNonceBytes + packet.size() + kInputTagBytes);
    ::randombytes_buf(datagram.data(), kInputNonceBytes);
    ::crypto_aead_chacha20poly1305_ietf_encrypt(datagram.data() + kInputNonceBytes, nullptr,
                                                packet.data(), packet.size(), nullptr, 0, nullptr,
                                                datagram.data(), key.data());
    return datagram;
}

void check_media_packets() {
    constexpr float kRatio = 0.1F;
    const Packets packets = packetize_test_frame(true, kRatio);
    check(splits_into_data_packets(packets), "frame split into 4 data packets");
    // A keyframe has parity anyway, any other frame by the ratio.
    check(packets.size() == kDataPackets + 1 &&
              packetize_test_frame(false, kRatio).size() == kDataPackets + 1 &&
              packetize_test_frame(false, 0).size() == kDataPackets,
          "repair symbol per parity group");
    check(!packets.empty() && packets.back().header.flags == 0x03 &&
              packets.back().header.group == 0x80,
          "repair symbols carry the grouped-scheme flag");

    const Key key = test_key(1);
    Encryption encryption;
    check(encryption.set_key(key.data(), key.size()), "encryption key set");

    bool fits = !packets.empty();
    bool has_tag = fits;
    bool opens = fits;
    std::vector<Bytes> sealed;
    std::vector<Bytes> opened;
    for (const OutgoingPacket& packet : packets) {
        const auto plain = packet.payload.bytes();
        sealed.push_back(seal_packet(encryption, packet.header, plain));
        opened.push_back(open_packet(key, packet.header, sealed.back()).value_or(Bytes{}));
        fits = fits && kHeaderBytes + sealed.back().size() <= 1200;
        has_tag = has_tag && sealed.back().size() == plain.size() + 16;
        opens = opens && std::ranges::equal(opened.back(), plain);
    }
    check(fits && has_tag, "ciphertext sizing");
    check(has_tag, "ciphertext = plaintext + 16B tag");
    check(opens, "every packet encrypted + authenticated + decrypted");
    check(reassembles_without_any_one(opened), "reassembled bitstream identical to source");
    check(has_tag && every_tag_bit_matters(key, packets.front().header, sealed.front()),
          "tampered tag rejected by Poly1305");
    check(has_tag && !open_packet(test_key(2), packets.front().header, sealed.front()),
          "wrong key rejected");
}

void check_session_keys() {
    Bytes master(crypto_kdf_KEYBYTES);
    std::iota(master.begin(), master.end(), uint8_t{0});
    SessionKeySet keys;
    keys.generate(master);
    SessionKeySet again;
    again.generate(master);
    check(keys.video_key == again.video_key && keys.audio_key == again.audio_key &&
              keys.input_key == again.input_key,
          "same inputs → same subkey");
    check(keys.video_key != keys.audio_key && keys.audio_key != keys.input_key &&
              keys.video_key != keys.input_key,
          "distinct subkey_ids → distinct keys");

    std::string hex(2 * keys.video_key.size() + 1, '\0');
    ::sodium_bin2hex(hex.data(), hex.size(), keys.video_key.data(), keys.video_key.size());
    hex.pop_back();  // the terminating zero
    note("video subkey (master=0..31)", hex);
    wipe(hex);
}

void check_input_packets() {
    // Bytes 0 version, 1 kind, 2-3 sequence number, 12-13 and 14-15 data, 16 buttons.
    constexpr InputBytes kMotion{1, 0, 0x34, 0x12, 0,    0,    0,    0, 0,
                                 0, 0, 0,    0xD4, 0xFE, 0xC2, 0x01, 5};
    // Right control: virtual key 0x11, scan code 29, extended.
    constexpr InputBytes kKeyDown{1, 3, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0x11, 0, 29, 0x02};
    const Key key = test_key(3);
    const Bytes motion = seal_input(key, kMotion);
    check(motion.size() - kInputNonceBytes == 28 + 16 && motion.size() == kInputDatagramBytes,
          "input encrypts to 28+16B");

    InputPacket moved;
    InputPacket pressed;
    check(open_input_datagram(key.data(), motion, moved) &&
              open_input_datagram(key.data(), seal_input(key, kKeyDown), pressed),
          "input decrypts");
    check(moved.version == 1 && moved.kind == 0 && moved.seq == 0x1234 && moved.data0 == -300 &&
              moved.data1 == 450 && moved.buttons == 5 && pressed.kind == 3 &&
              pressed.seq == 0xFFFF && pressed.data0 == 0x11 && pressed.scan_code() == 29 &&
              pressed.extended_key() && pressed.buttons == 0,
          "decoded fields survive roundtrip");
    check(sizeof(InputPacket) == 28 && alignof(InputPacket) == 1, "InputPacket is 28 bytes packed");
}

}  // namespace ox::selftest
