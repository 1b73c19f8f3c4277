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
    EXPECT_FALSE(block.add(10, frame(80, 1), 8));
    EXPECT_FALSE(block.add(11, frame(80, 1), 9));
    for (const uint32_t sequence : {12U, 13U, 14U}) {
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

TEST(ParityBlock, ItsShardsRebuildTwoLostFrames) {
    ParityBlock block;
    const std::vector<std::vector<uint8_t>> frames{frame(80, 0x11), frame(75, 0x22),
                                                   frame(80, 0x33), frame(60, 0x44)};
    for (uint32_t i = 0; i < 4; ++i)
        block.add(400 + i, frames[i], i);
    ParityBlock::Shards shards;
    ASSERT_EQ(block.encode(shards), audioparity::Guard::kOk);
    audioparity::BlockDecoder decoder;
    for (size_t i = 0; i < 2; ++i) {
        ASSERT_EQ(shards.lengths[i], 16U + 80U);
        audioparity::ShardHeader header;
        ASSERT_EQ(audioparity::parse_shard(shards.bytes[i].data(), shards.lengths[i], header),
                  audioparity::Guard::kOk);
        ASSERT_TRUE(decoder.init_from(header));
        ASSERT_EQ(decoder.add(true, header.repair_index, header, shards.bytes[i].data() + 16, 80),
                  audioparity::Guard::kOk);
        if (i == 0) {
            decoder.add(false, 0, header, frames[0].data(), frames[0].size());
            decoder.add(false, 3, header, frames[3].data(), frames[3].size());
        }
    }
    std::vector<std::vector<uint8_t>> rebuilt;
    bool any = false;
    ASSERT_EQ(decoder.recover(rebuilt, any), audioparity::Guard::kOk);
    EXPECT_TRUE(any);
    EXPECT_EQ(rebuilt, frames);
}

}  // namespace
}  // namespace ox
