#include "audio/parity_block.h"

#include <gtest/gtest.h>

#include <vector>

namespace ox {
namespace {

std::vector<uint8_t> frame(size_t length, uint8_t fill) {
    return std::vector<uint8_t>(length, fill);
}

TEST(ParityBlock, FourConsecutiveFramesFromAMultipleOfFourMakeABlock) {
    ParityBlock block;
    // A stream that starts inside a block waits for the next one.
    EXPECT_FALSE(block.add(2, frame(80, 1), 1));
    EXPECT_FALSE(block.add(3, frame(80, 1), 2));
    EXPECT_FALSE(block.add(4, frame(80, 1), 3));
    EXPECT_FALSE(block.add(5, frame(80, 2), 4));
    EXPECT_FALSE(block.add(6, frame(80, 3), 5));
    EXPECT_TRUE(block.add(7, frame(80, 4), 6));
    EXPECT_EQ(block.base(), 4U);
    EXPECT_EQ(block.last_timestamp(), 6U);
    EXPECT_TRUE(block.fits());
    // A gap leaves the block incomplete, the next one is whole again.
    EXPECT_FALSE(block.add(8, frame(80, 1), 7));
    for (const uint32_t sequence : {10U, 11U, 12U, 13U, 14U}) {
        EXPECT_FALSE(block.add(sequence, frame(80, 1), sequence));
    }
    EXPECT_TRUE(block.add(15, frame(80, 1), 15));
}

TEST(ParityBlock, LongFramesCompleteABlockThatGetsNoRepair) {
    for (const size_t longest : {size_t{1100}, size_t{1101}, size_t{1146}, size_t{1147}}) {
        ParityBlock block;
        block.add(0, frame(10, 1), 0);
        block.add(1, frame(longest, 2), 0);
        block.add(2, frame(10, 3), 0);
        const bool complete = block.add(3, frame(10, 4), 0);
        EXPECT_EQ(complete, longest <= 1146) << longest;
        EXPECT_EQ(complete && block.fits(), longest <= 1100) << longest;
    }
}

TEST(ParityBlock, ItsShardsRebuildLostFrames) {
    ParityBlock block;
    for (uint8_t i = 0; i < 4; ++i)
        block.add(400U + i, frame(80U - i, i), i);
    ParityBlock::Shards shards;
    ASSERT_EQ(block.encode(shards), audioparity::Guard::kOk);
    audioparity::BlockDecoder decoder;
    for (size_t i = 0; i < 2; ++i) {
        audioparity::ShardHeader header;
        ASSERT_EQ(audioparity::parse_shard(shards.bytes[i].data(), shards.lengths[i], header),
                  audioparity::Guard::kOk);
        decoder.add(true, header.repair_index, header, shards.bytes[i].data() + 16, 80);
        decoder.add(false, static_cast<uint8_t>(i), header,
                    frame(80 - i, static_cast<uint8_t>(i)).data(), 80 - i);
    }
    std::vector<std::vector<uint8_t>> rebuilt;
    bool any = false;
    ASSERT_EQ(decoder.recover(rebuilt, any), audioparity::Guard::kOk);
    EXPECT_EQ(rebuilt.at(3), frame(77, 3));
}

}  // namespace
}  // namespace ox
