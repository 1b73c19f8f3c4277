#include "audio/audioparity.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace ox::audioparity {
namespace {

using Bytes = std::vector<uint8_t>;

struct Block {
    std::array<Bytes, kDataFrames> frames;
    std::array<Bytes, kRepairs> shards;
};

Guard encode(Block& block) {
    std::array<const uint8_t*, kDataFrames> data{};
    std::array<size_t, kDataFrames> lens{};
    for (size_t i = 0; i < kDataFrames; ++i) {
        data[i] = block.frames[i].data();
        lens[i] = block.frames[i].size();
    }
    std::array<uint8_t*, kRepairs> out{};
    std::array<size_t, kRepairs> out_lens{};
    for (size_t r = 0; r < kRepairs; ++r) {
        block.shards[r].assign(kMaxRepairBytes, 0xEE);
        out[r] = block.shards[r].data();
    }
    const Guard guard = encode_block(data.data(), lens.data(), out.data(), out_lens.data());
    for (size_t r = 0; r < kRepairs; ++r)
        block.shards[r].resize(out_lens[r]);
    return guard;
}

Block block_of_lengths(const std::array<size_t, kDataFrames>& lengths) {
    Block block;
    uint8_t value = 1;
    for (size_t i = 0; i < kDataFrames; ++i) {
        block.frames[i].resize(lengths[i]);
        for (uint8_t& byte : block.frames[i])
            byte = value = static_cast<uint8_t>(value * 5 + 3);
    }
    return block;
}

ShardHeader header_of(const Bytes& shard) {
    ShardHeader header;
    EXPECT_EQ(parse_shard(shard.data(), shard.size(), header), Guard::kOk);
    return header;
}

Guard add_piece(BlockDecoder& decoder, const Block& block, size_t piece) {
    const ShardHeader header = header_of(block.shards[0]);
    if (piece < kDataFrames) {
        const Bytes& frame = block.frames[piece];
        return decoder.add(false, static_cast<uint8_t>(piece), header, frame.data(), frame.size());
    }
    const size_t repair = piece - kDataFrames;
    return decoder.add(true, static_cast<uint8_t>(repair), header,
                       block.shards[repair].data() + kShardHeaderBytes, header.shard_len);
}

// Layout and limits of what is encoded are checks of the self-test.
TEST(ShardHeader, IsCheckedFieldByFieldInOrder) {
    // S = 160, 4 + 2, repair 1, version 1, reserved, lengths 120, 130, 90, 160.
    const Bytes good{160, 0, 4, 2, 1, 1, 0, 0, 120, 0, 130, 0, 90, 0, 160, 0};
    struct Change {
        size_t at;
        uint8_t value;
    };
    const struct {
        std::vector<Change> changes;
        Guard guard;
    } cases[] = {
        {{}, Guard::kOk},
        {{{5, 2}, {2, 5}}, Guard::kBadVersion},  // the version is looked at first
        {{{2, 5}, {3, 1}}, Guard::kBadBlockLen},
        {{{3, 1}, {4, 2}}, Guard::kBadRepairCount},
        {{{4, 2}, {0, 0}}, Guard::kBadRepairIndex},
        {{{0, 0}}, Guard::kBadShardLen},
        {{{0, 0x7A}, {1, 4}}, Guard::kOk},           // 1146
        {{{0, 0x7B}, {1, 4}}, Guard::kBadShardLen},  // 1147
        {{{0, 159}}, Guard::kBadOrigLen},
        {{{9, 1}}, Guard::kBadOrigLen},
        {{{6, 9}, {8, 0}}, Guard::kOk},
    };
    for (const auto& c : cases) {
        Bytes bytes = good;
        for (const Change& change : c.changes)
            bytes[change.at] = change.value;
        ShardHeader header;
        EXPECT_EQ(parse_shard_header(bytes.data(), bytes.size(), header), c.guard)
            << guard_name(c.guard) << ", case " << &c - cases;
    }
    ShardHeader header;
    EXPECT_EQ(parse_shard_header(good.data(), 15, header), Guard::kTruncated);
    EXPECT_EQ(parse_shard_header(good.data(), good.size(), header), Guard::kOk);
    EXPECT_EQ(header.orig_len, (std::array<uint16_t, 4>{120, 130, 90, 160}));

    Bytes shard = good;
    for (const auto& [length, guard] : {std::pair{size_t{175}, Guard::kBadPayloadLen},
                                        {176, Guard::kOk},
                                        {177, Guard::kBadPayloadLen}}) {
        shard.resize(length);
        EXPECT_EQ(parse_shard(shard.data(), shard.size(), header), guard) << length;
    }
}

TEST(BlockDecoder, RebuildsTheFramesFromAnyFourPieces) {
    for (const auto& lengths : std::vector<std::array<size_t, kDataFrames>>{
             {120, 130, 90, 160}, {80, 80, 80, 80}, {1, 1, 1, 1}, {1146, 1, 700, 33}}) {
        Block block = block_of_lengths(lengths);
        ASSERT_EQ(encode(block), Guard::kOk);
        for (unsigned held = 0; held < 64; ++held) {
            BlockDecoder decoder;
            ASSERT_TRUE(decoder.init_from(header_of(block.shards[1])));
            unsigned count = 0;
            for (size_t piece = 6; piece-- > 0;) {
                if ((held >> piece & 1U) == 0) continue;
                ASSERT_EQ(add_piece(decoder, block, piece), Guard::kOk);
                ++count;
            }
            const bool all_data = (held & 15U) == 15U;
            ASSERT_EQ(decoder.have_all_sources(), all_data);
            ASSERT_EQ(decoder.can_recover(), count >= 4);
            std::vector<Bytes> frames{{9}};
            bool rebuilt = true;
            ASSERT_EQ(decoder.recover(frames, rebuilt),
                      count >= 4 ? Guard::kOk : Guard::kDecodeFailed);
            ASSERT_EQ(rebuilt, count >= 4 && !all_data);
            if (count < 4) {
                ASSERT_TRUE(frames.empty());
                continue;
            }
            ASSERT_EQ(frames, std::vector<Bytes>(block.frames.begin(), block.frames.end()));
        }
    }
}

TEST(BlockDecoder, RefusesWhatDoesNotBelongToTheBlock) {
    Block block = block_of_lengths({120, 130, 90, 160});
    ASSERT_EQ(encode(block), Guard::kOk);
    const ShardHeader header = header_of(block.shards[0]);
    ShardHeader other_length = header;
    other_length.shard_len = 161;
    ShardHeader other_frame = header;
    other_frame.orig_len[2] = 91;
    const Bytes bytes(200, 3);

    BlockDecoder decoder;
    ASSERT_TRUE(decoder.init_from(header));
    EXPECT_TRUE(decoder.init_from(header_of(block.shards[1])));
    EXPECT_FALSE(decoder.init_from(other_length));
    EXPECT_FALSE(decoder.init_from(other_frame));
    const struct {
        bool is_repair;
        uint8_t index;
        const ShardHeader* header;
        const uint8_t* payload;
        size_t length;
        Guard guard;
    } cases[] = {
        {false, 0, &header, nullptr, 10, Guard::kBadPayloadLen},
        {false, 0, &header, bytes.data(), 0, Guard::kBadPayloadLen},
        {false, 0, &other_length, bytes.data(), 10, Guard::kBadShardLen},
        {false, 0, &other_frame, bytes.data(), 10, Guard::kBadOrigLen},
        {true, 2, &header, bytes.data(), 160, Guard::kBadRepairIndex},
        {false, 4, &header, bytes.data(), 10, Guard::kBadIndex},
        {true, 0, &header, bytes.data(), 159, Guard::kBadPayloadLen},
        {true, 0, &header, bytes.data(), 160, Guard::kOk},
        {true, 0, &header, bytes.data(), 160, Guard::kDuplicate},
        {false, 3, &header, bytes.data(), 161, Guard::kBadPayloadLen},
        {false, 3, &header, bytes.data(), 160, Guard::kOk},
        {false, 3, &header, bytes.data(), 20, Guard::kDuplicate},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        EXPECT_EQ(decoder.add(c.is_repair, c.index, *c.header, c.payload, c.length), c.guard)
            << "case " << i;
    }
    EXPECT_FALSE(decoder.can_recover());
}

}  // namespace
}  // namespace ox::audioparity
