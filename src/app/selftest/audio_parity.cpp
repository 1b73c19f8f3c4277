#include <algorithm>
#include <string_view>

#include "app/selftest/groups.h"
#include "app/selftest/launcher_side.h"
#include "app/selftest/scoped_variable.h"
#include "audio/audio_headers.h"
#include "audio/audioparity.h"
#include "audio/parity_block.h"
#include "base/byte_order.h"
#include "transport/encryption.h"

namespace ox::selftest {
namespace {

using namespace audioparity;

constexpr uint32_t kBase = 0x00030200;  ///< first sequence number of the block
constexpr uint64_t kFirstTimestamp = 5'000'000;
constexpr uint64_t kFrameUs = 5000;
constexpr std::array<size_t, 4> kLengths{120, 130, 90, 160};
constexpr uint16_t kShardBytes = 160;  ///< the longest of them
constexpr uint16_t kRepairPad = 0xA5C3;
constexpr size_t kTag = 16;

/// One block on its way through the agent's code.
struct Block {
    std::array<Bytes, 4> frames;
    ParityBlock assembled;
    bool completed_by_fourth = false;
    Guard encoded = Guard::kEncodeFailed;
    std::array<Bytes, 2> shards;
};

Block make_block(const std::array<size_t, 4>& lengths) {
    Block block;
    bool complete = false;
    bool early = false;
    for (size_t i = 0; i < block.frames.size(); ++i) {
        Bytes& frame = block.frames[i];
        frame.resize(lengths[i]);
        for (size_t k = 0; k < frame.size(); ++k)
            frame[k] = static_cast<uint8_t>(k * 29 + i * 101 + k / 7);
        early = early || complete;
        complete = block.assembled.add(kBase + static_cast<uint32_t>(i), frame,
                                       kFirstTimestamp + i * kFrameUs);
    }
    block.completed_by_fourth = complete && !early;
    ParityBlock::Shards shards;
    block.encoded = block.assembled.encode(shards);
    for (size_t i = 0; i < block.shards.size() && block.encoded == Guard::kOk; ++i)
        block.shards[i].assign(shards.bytes[i].data(), shards.bytes[i].data() + shards.lengths[i]);
    return block;
}

/// A shard header in the bytes of the wire.
Bytes header_bytes(uint16_t shard_len, uint8_t block_len, uint8_t repairs, uint8_t index,
                   uint8_t version, const std::array<uint16_t, 4>& lengths) {
    Bytes bytes(16);
    store_le<uint16_t>(bytes.data(), shard_len);
    bytes[2] = block_len;
    bytes[3] = repairs;
    bytes[4] = index;
    bytes[5] = version;
    for (size_t i = 0; i < lengths.size(); ++i)
        store_le<uint16_t>(bytes.data() + 8 + 2 * i, lengths[i]);
    return bytes;
}

Guard header_guard(const Bytes& bytes) {
    ShardHeader header;
    return parse_shard_header(bytes.data(), bytes.size(), header);
}

bool geometry_and_guards_hold() {
    constexpr std::array<uint16_t, 4> kLens{9, 10, 1, 10};
    const auto is = [](Guard guard, uint8_t value, std::string_view name) {
        return static_cast<uint8_t>(guard) == value && guard_name(guard) == name;
    };
    Bytes cut = header_bytes(10, 4, 2, 0, 1, kLens);
    cut.pop_back();
    Bytes short_shard = header_bytes(10, 4, 2, 0, 1, kLens);
    short_shard.resize(16 + 9);
    ShardHeader header;
    const Guard short_guard = parse_shard(short_shard.data(), short_shard.size(), header);
    return kDataFrames == 4 && kRepairs == 2 && kShardHeaderBytes == 16 && kMaxShardBytes == 1146 &&
           kMaxRepairBytes == 1162 &&
           is(header_guard(header_bytes(10, 4, 2, 1, 1, kLens)), 0, "ok") &&
           is(header_guard(cut), 1, "truncated") &&
           is(header_guard(header_bytes(10, 5, 2, 0, 1, kLens)), 2, "bad_block_len") &&
           is(header_guard(header_bytes(10, 4, 3, 0, 1, kLens)), 3, "bad_repair_count") &&
           is(header_guard(header_bytes(10, 4, 2, 2, 1, kLens)), 4, "bad_repair_index") &&
           is(header_guard(header_bytes(10, 5, 2, 0, 2, kLens)), 5, "bad_version") &&
           is(header_guard(header_bytes(0, 4, 2, 0, 1, kLens)), 6, "bad_shard_len") &&
           is(header_guard(header_bytes(9, 4, 2, 0, 1, kLens)), 7, "bad_orig_len") &&
           is(short_guard, 8, "bad_payload_len");
}

using Nonce = std::array<uint8_t, kNonceBytes>;

Nonce nonce_of(const PacketHeader& header) {
    Nonce nonce{};
    Encryption::build_nonce(header, nonce.data());
    return nonce;
}

const PacketHeader kDataHeader = audio_data_header(kBase, kFirstTimestamp);

PacketHeader repair_header(const Block& block, size_t index) {
    return audio_repair_header(block.assembled.base(), index, block.assembled.last_timestamp());
}

void check_switch() {
    const ScopedVariable variable("OX_AUDIO_PARITY");
    check(!audio_parity_enabled(), "OX_AUDIO_PARITY unset keeps parity off");
    variable.set("1");
    check(audio_parity_enabled(), "OX_AUDIO_PARITY=1 enables parity");
}

void check_nonces(const Block& block) {
    constexpr std::array<uint8_t, 10> kCommon{2, 0, 0, 0, 0x00, 0x02, 0x03, 0x00, 0, 0};
    const Nonce data = nonce_of(kDataHeader);
    const Nonce repair0 = nonce_of(repair_header(block, 0));
    const Nonce repair1 = nonce_of(repair_header(block, 1));
    check(data[10] == 0x00 && data[11] == 0x00 && repair0[10] == 0xC3 && repair0[11] == 0xA5,
          "data pad 0x0000, parity pad 0xA5C3 little-endian");
    const bool otherwise_equal = std::equal(kCommon.begin(), kCommon.end(), data.begin()) &&
                                 std::equal(kCommon.begin(), kCommon.end(), repair0.begin());
    check(otherwise_equal && data != repair0,
          "parity nonce pad 0xA5C3 separates repair 0 from data base");
    check(repair0 != repair1, "repair 0 and repair 1 nonces differ");
}

bool survives_the_wire(const Encryption& encryption, const Key& key, const PacketHeader& header,
                       const Bytes& shard) {
    if (shard.empty()) return false;
    Bytes sealed(shard.size() + kTag);
    size_t length = 0;
    if (!encryption.encrypt_packet(header, shard.data(), shard.size(), sealed.data(), length) ||
        length != sealed.size()) {
        return false;
    }
    Bytes opened(length);
    if (!decrypt_packet_with_key(key.data(), header, sealed.data(), sealed.size(), opened.data(),
                                 length)) {
        return false;
    }
    opened.resize(length);
    return opened == shard && open_as_launcher(key, header, sealed, kRepairPad) == shard &&
           !open_as_launcher(key, header, sealed, 0);
}

void check_sealing(const Block& block) {
    const Key key = test_key(5);
    Encryption encryption;
    check(encryption.set_key(key.data(), key.size()), "parity test key set");
    check(survives_the_wire(encryption, key, repair_header(block, 0), block.shards[0]) &&
              survives_the_wire(encryption, key, repair_header(block, 1), block.shards[1]),
          "repair symbols encrypt/decrypt with the 0xA5C3 nonce pad");
}

bool is_repair_header(const PacketHeader& header, size_t index) {
    return header.stream == 2 && header.frame_id == kBase && header.index == index &&
           header.count == 4 && header.flags == 0x24 && header.group == 0 &&
           header.timestamp == kFirstTimestamp + 3 * kFrameUs;
}

bool shard_header_is_laid_out(const Block& block) {
    constexpr std::array<uint16_t, 4> kLens{120, 130, 90, 160};
    for (size_t i = 0; i < block.shards.size(); ++i) {
        const Bytes expected = header_bytes(kShardBytes, 4, 2, static_cast<uint8_t>(i), 1, kLens);
        if (block.shards[i].size() < expected.size() ||
            !std::equal(expected.begin(), expected.end(), block.shards[i].begin())) {
            return false;
        }
    }
    return true;
}

/// Rebuilds the block from both repair symbols and all data frames but two.
bool recover_without(const Block& block, size_t lost_a, size_t lost_b, std::vector<Bytes>& frames) {
    BlockDecoder decoder;
    for (size_t i = 0; i < block.shards.size(); ++i) {
        const Bytes& shard = block.shards[i];
        ShardHeader header;
        if (parse_shard(shard.data(), shard.size(), header) != Guard::kOk ||
            !decoder.init_from(header) ||
            decoder.add(true, static_cast<uint8_t>(i), header, shard.data() + kShardHeaderBytes,
                        shard.size() - kShardHeaderBytes) != Guard::kOk) {
            return false;
        }
        for (size_t k = 0; i == 0 && k < block.frames.size(); ++k) {
            if (k == lost_a || k == lost_b) continue;
            const Bytes& frame = block.frames[k];
            if (decoder.add(false, static_cast<uint8_t>(k), header, frame.data(), frame.size()) !=
                Guard::kOk) {
                return false;
            }
        }
    }
    bool rebuilt = false;
    return decoder.can_recover() && decoder.recover(frames, rebuilt) == Guard::kOk && rebuilt;
}

void check_recovery(const Block& block) {
    bool recovered = true;
    bool identical = true;
    for (size_t a = 0; a < 4; ++a) {
        for (size_t b = a + 1; b < 4; ++b) {
            std::vector<Bytes> frames;
            recovered = recover_without(block, a, b, frames) && recovered;
            identical = std::ranges::equal(frames, block.frames) && identical;
        }
    }
    check(recovered, "2+2 block recovers");
    check(identical, "recovered frames are byte-identical, orig_len honoured");
}

Guard encode_with_longest(size_t bytes) {
    const Bytes frame(bytes, 0x5A);
    const std::array<const uint8_t*, 4> data{frame.data(), frame.data(), frame.data(),
                                             frame.data()};
    const std::array<size_t, 4> lengths{1, bytes, 1, 1};
    std::array<Bytes, 2> shards{Bytes(kMaxRepairBytes + bytes), Bytes(kMaxRepairBytes + bytes)};
    const std::array<uint8_t*, 2> out{shards[0].data(), shards[1].data()};
    std::array<size_t, 2> out_lengths{};
    return encode_block(data.data(), lengths.data(), out.data(), out_lengths.data());
}

void check_limits() {
    const Block longest = make_block({80, 1100, 80, 80});
    const Block too_long = make_block({80, 1101, 80, 80});
    check(longest.completed_by_fourth && longest.assembled.fits() && too_long.completed_by_fourth &&
              !too_long.assembled.fits(),
          "a frame over 1100 B completes the block but skips parity");
    constexpr std::array<uint16_t, 4> kLens{1, 1, 1, 1};
    check(encode_with_longest(1146) == Guard::kOk &&
              encode_with_longest(1147) == Guard::kBadShardLen &&
              header_guard(header_bytes(1146, 4, 2, 0, 1, kLens)) == Guard::kOk &&
              header_guard(header_bytes(1147, 4, 2, 0, 1, kLens)) == Guard::kBadShardLen,
          "shard larger than 1146 B is refused");
}

}  // namespace

void check_audio_parity() {
    check_switch();
    check(geometry_and_guards_hold(), "4:2 geometry and byte guards match the spec");
    check(packet_flags::AUDIO_PARITY == 0x20 && packet_flags::FEC_PACKET == 0x02 &&
              (audio_repair_header(kBase, 0, 0).flags & packet_flags::FEC_PACKET) == 0,
          "AUDIO_PARITY is 0x20 and never aliases FEC_PACKET");

    const Block block = make_block(kLengths);
    check_nonces(block);
    check_sealing(block);
    check(block.completed_by_fourth && is_repair_header(repair_header(block, 0), 0) &&
              is_repair_header(repair_header(block, 1), 1),
          "4 frames form a block; repair ts is slot 3's capture ts");
    check(block.encoded == Guard::kOk && block.shards[0].size() == 16 + kShardBytes &&
              block.shards[1].size() == 16 + kShardBytes,
          "4 frames encode into 2 repair payloads");
    check(shard_header_is_laid_out(block), "repair header fields are the spec's 16-byte layout");
    check_recovery(block);
    check_limits();
}

}  // namespace ox::selftest
