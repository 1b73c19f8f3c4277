#include <sodium.h>

#include <algorithm>
#include <string_view>

#include "app/selftest/checks.h"
#include "audio/audio_packetizer.h"
#include "audio/audioparity.h"

namespace ox::selftest {
namespace {

using namespace audioparity;

constexpr uint32_t kBase = 0x00030200;  ///< first sequence number of the block
constexpr uint64_t kFirstTimestamp = 5'000'000;
constexpr uint64_t kFrameUs = 5000;
constexpr std::array<size_t, 4> kLengths{120, 130, 90, 160};
constexpr size_t kShardBytes = 16 + 160;  ///< a header and as much as the longest of them

/// Four frames, and what the agent's code makes of them.
struct Block {
    std::array<Bytes, 4> frames;
    ParityBlock assembled;
    bool completed_by_fourth = false;
    Guard encoded = Guard::kEncodeFailed;
    std::array<Bytes, 2> shards;
};

Block make_block(const std::array<size_t, 4>& lengths) {
    Block block;
    size_t completed = 0;
    for (size_t i = 0; i < block.frames.size(); ++i) {
        Bytes& frame = block.frames[i];
        frame.resize(lengths[i]);
        for (size_t k = 0; k < frame.size(); ++k)
            frame[k] = static_cast<uint8_t>(k * 29 + i * 101 + k / 7);
        const bool complete = block.assembled.add(kBase + static_cast<uint32_t>(i), frame,
                                                  kFirstTimestamp + i * kFrameUs);
        if (complete) completed += i + 1;
    }
    block.completed_by_fourth = completed == 4;
    ParityBlock::Shards shards;
    block.encoded = block.assembled.encode(shards);
    for (size_t i = 0; i < block.shards.size() && block.encoded == Guard::kOk; ++i)
        block.shards[i].assign(shards.bytes[i].data(), shards.bytes[i].data() + shards.lengths[i]);
    return block;
}

/// A valid header of a shard of 10 bytes.
constexpr std::array<uint8_t, 16> kHeader{10, 0, 4, 2, 1, 1, 0, 0, 9, 0, 10, 0, 1, 0, 10, 0};

Guard guard_of(const std::array<uint8_t, 16>& bytes, size_t length = 16) {
    ShardHeader header;
    return parse_shard_header(bytes.data(), length, header);
}

bool geometry_and_guards_hold() {
    struct Case {
        size_t offset;
        uint8_t value;
        int guard;
        std::string_view name;
    };
    constexpr std::array<Case, 7> kCases{{{0, 10, 0, "ok"},
                                          {2, 5, 2, "bad_block_len"},
                                          {3, 3, 3, "bad_repair_count"},
                                          {4, 2, 4, "bad_repair_index"},
                                          {5, 2, 5, "bad_version"},
                                          {0, 0, 6, "bad_shard_len"},
                                          {0, 9, 7, "bad_orig_len"}}};
    for (const Case& one : kCases) {
        auto bytes = kHeader;
        bytes.at(one.offset) = one.value;
        const Guard guard = guard_of(bytes);
        if (static_cast<int>(guard) != one.guard || guard_name(guard) != one.name) return false;
    }
    ShardHeader header;
    return kDataFrames == 4 && kRepairs == 2 && kShardHeaderBytes == 16 && kMaxShardBytes == 1146 &&
           kMaxRepairBytes == 1162 && guard_of(kHeader, 15) == Guard::kTruncated &&
           parse_shard(kHeader.data(), kHeader.size(), header) == Guard::kBadPayloadLen;
}

PacketHeader repair_header(const Block& block, size_t index) {
    return audio_repair_header(block.assembled.base(), index, block.assembled.last_timestamp());
}

void check_switch() {
    const ScopedVariable variable("OX_AUDIO_PARITY");
    check(!audio_parity_enabled(), "OX_AUDIO_PARITY unset keeps parity off");
    variable.set("1");
    check(audio_parity_enabled(), "OX_AUDIO_PARITY=1 enables parity");
}

using Nonce = std::array<uint8_t, kNonceBytes>;
constexpr Nonce kDataNonce{2, 0, 0, 0, 0x00, 0x02, 0x03, 0x00, 0, 0, 0x00, 0x00};
constexpr Nonce kRepairNonce{2, 0, 0, 0, 0x00, 0x02, 0x03, 0x00, 0, 0, 0xC3, 0xA5};

Nonce nonce_of(const PacketHeader& header) {
    Nonce nonce{};
    Encryption::build_nonce(header, nonce.data());
    return nonce;
}

void check_nonces(const Block& block) {
    const Nonce data = nonce_of(audio_data_header(kBase, kFirstTimestamp));
    const Nonce repair = nonce_of(repair_header(block, 0));
    check(data == kDataNonce && repair == kRepairNonce,
          "data pad 0x0000, parity pad 0xA5C3 little-endian");
    check(repair != data, "parity nonce pad 0xA5C3 separates repair 0 from data base");
    check(repair != nonce_of(repair_header(block, 1)), "repair 0 and repair 1 nonces differ");
}

void check_sealing(const Block& block) {
    const Key key = test_key(5);
    Encryption encryption;
    check(encryption.set_key(key.data(), key.size()), "parity test key set");
    bool opens = true;
    for (size_t i = 0; i < block.shards.size(); ++i) {
        const PacketHeader header = repair_header(block, i);
        const Bytes sealed = seal_packet(encryption, header, block.shards[i]);
        Nonce nonce = kRepairNonce;
        nonce[8] = static_cast<uint8_t>(i);
        Bytes opened(block.shards[i].size());
        opens = opens && sealed.size() == opened.size() + kTagBytes &&
                open_packet(key, header, sealed) == block.shards[i] &&
                ::crypto_aead_chacha20poly1305_ietf_decrypt(
                    opened.data(), nullptr, nullptr, sealed.data(), sealed.size(),
                    reinterpret_cast<const uint8_t*>(&header), sizeof header, nonce.data(),
                    key.data()) == 0 &&
                opened == block.shards[i];
    }
    check(opens, "repair symbols encrypt/decrypt with the 0xA5C3 nonce pad");
}

bool is_repair_header(const PacketHeader& header, size_t index) {
    return header.stream == 2 && header.frame_id == kBase && header.index == index &&
           header.count == 4 && header.flags == 0x24 && header.group == 0 &&
           header.timestamp == kFirstTimestamp + 3 * kFrameUs;
}

bool has_header(const Bytes& shard, uint8_t index) {
    const std::array<uint8_t, 16> expected{160, 0, 4,   2, index, 1, 0,   0,
                                           120, 0, 130, 0, 90,    0, 160, 0};
    return shard.size() > expected.size() &&
           std::equal(expected.begin(), expected.end(), shard.begin());
}

/// Rebuilds the block from both repair symbols and all data frames but two.
bool recover_without(const Block& block, size_t lost_a, size_t lost_b, std::vector<Bytes>& frames) {
    BlockDecoder decoder;
    ShardHeader header;
    bool added = true;
    const auto add = [&](bool is_repair, size_t index, std::span<const uint8_t> bytes) {
        added = added && decoder.add(is_repair, static_cast<uint8_t>(index), header, bytes.data(),
                                     bytes.size()) == Guard::kOk;
    };
    for (size_t i = 0; i < block.shards.size(); ++i) {
        const Bytes& shard = block.shards[i];
        if (parse_shard(shard.data(), shard.size(), header) != Guard::kOk ||
            !decoder.init_from(header)) {
            return false;
        }
        add(true, i, std::span(shard).subspan(kShardHeaderBytes));
    }
    for (size_t i = 0; i < block.frames.size(); ++i) {
        if (i != lost_a && i != lost_b) add(false, i, block.frames[i]);
    }
    bool rebuilt = false;
    return added && decoder.can_recover() && decoder.recover(frames, rebuilt) == Guard::kOk &&
           rebuilt;
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
    auto header = kHeader;
    header[0] = 0x7A;  // 1146 is 0x047A
    header[1] = 0x04;
    const Guard allowed = guard_of(header);
    ++header[0];
    check(encode_with_longest(1146) == Guard::kOk &&
              encode_with_longest(1147) == Guard::kBadShardLen && allowed == Guard::kOk &&
              guard_of(header) == Guard::kBadShardLen,
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
    check(block.encoded == Guard::kOk && block.shards[0].size() == kShardBytes &&
              block.shards[1].size() == kShardBytes,
          "4 frames encode into 2 repair payloads");
    check(has_header(block.shards[0], 0) && has_header(block.shards[1], 1),
          "repair header fields are the spec's 16-byte layout");
    check_recovery(block);
    check_limits();
}

}  // namespace ox::selftest
