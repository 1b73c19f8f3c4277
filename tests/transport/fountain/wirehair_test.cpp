#include "transport/fountain/wirehair.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

struct FreeCodec {
    void operator()(WirehairCodec codec) const { wirehair_free(codec); }
};
using CodecOwner = std::unique_ptr<WirehairCodec_t, FreeCodec>;
using Bytes = std::vector<uint8_t>;

Bytes random_message(size_t bytes, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes message(bytes);
    for (uint8_t& byte : message)
        byte = static_cast<uint8_t>(random());
    return message;
}

CodecOwner make_encoder(const Bytes& message, uint32_t block_bytes) {
    EXPECT_EQ(wirehair_init(), Wirehair_Success);
    return CodecOwner(
        wirehair_encoder_create(nullptr, message.data(), message.size(), block_bytes));
}

CodecOwner make_decoder(size_t message_bytes, uint32_t block_bytes) {
    return CodecOwner(wirehair_decoder_create(nullptr, message_bytes, block_bytes));
}

Bytes block_of(WirehairCodec encoder, uint32_t id, uint32_t block_bytes) {
    Bytes block(block_bytes);
    uint32_t written = 0;
    EXPECT_EQ(wirehair_encode(encoder, id, block.data(), block_bytes, &written), Wirehair_Success);
    block.resize(written);
    return block;
}

Bytes recovered(WirehairCodec decoder, size_t message_bytes) {
    Bytes message(message_bytes);
    EXPECT_EQ(wirehair_recover(decoder, message.data(), message_bytes), Wirehair_Success);
    return message;
}

/// Feeds blocks that survive a lossy channel until the decoder has enough; returns how many more
/// than `block_count` that took.
uint32_t feed(WirehairCodec decoder, WirehairCodec encoder, uint32_t block_count,
              uint32_t block_bytes, double loss, std::mt19937& random) {
    std::geometric_distribution<uint32_t> lost(1 - loss);
    WirehairResult result = Wirehair_NeedMore;
    uint32_t fed = 0;
    for (uint32_t id = lost(random); result == Wirehair_NeedMore; id += 1 + lost(random)) {
        const Bytes block = block_of(encoder, id, block_bytes);
        result = wirehair_decode(decoder, id, block.data(), static_cast<uint32_t>(block.size()));
        ++fed;
    }
    EXPECT_EQ(result, Wirehair_Success);
    EXPECT_GE(fed, block_count);
    return fed - block_count;
}

struct Shape {
    uint32_t block_count;
    uint32_t block_bytes;
    uint32_t final_bytes;
};

class WirehairRoundTrip : public testing::TestWithParam<Shape> {};

// One message through everything: source blocks as they are, decoding from a lossy channel, the
// message and its single blocks, and the decoder as the next sender.
TEST_P(WirehairRoundTrip, SurvivesLossAndGoesOn) {
    const auto [block_count, block_bytes, final_bytes] = GetParam();
    const size_t full = size_t{block_count - 1} * block_bytes;
    const Bytes message = random_message(full + final_bytes, block_count);
    const CodecOwner encoder = make_encoder(message, block_bytes);
    ASSERT_TRUE(encoder);
    for (const uint32_t id : {0U, block_count / 2, block_count - 1}) {
        const auto from = message.begin() + static_cast<ptrdiff_t>(size_t{id} * block_bytes);
        const size_t length = id == block_count - 1 ? final_bytes : block_bytes;
        ASSERT_EQ(block_of(encoder.get(), id, block_bytes),
                  Bytes(from, from + static_cast<ptrdiff_t>(length)));
    }

    const CodecOwner decoder = make_decoder(message.size(), block_bytes);
    ASSERT_TRUE(decoder);
    std::mt19937 random(block_count);
    feed(decoder.get(), encoder.get(), block_count, block_bytes, 0.4, random);
    ASSERT_TRUE(recovered(decoder.get(), message.size()) == message);

    Bytes block(block_bytes);
    uint32_t length = 0;
    ASSERT_EQ(wirehair_recover_block(decoder.get(), block_count - 1, block.data(), &length),
              Wirehair_Success);
    ASSERT_EQ(length, final_bytes);
    ASSERT_TRUE(
        std::equal(message.begin() + static_cast<ptrdiff_t>(full), message.end(), block.begin()));

    ASSERT_EQ(wirehair_decoder_becomes_encoder(decoder.get()), Wirehair_Success);
    for (const uint32_t id : {0U, block_count - 1, block_count, block_count + 77, UINT32_MAX}) {
        EXPECT_EQ(block_of(decoder.get(), id, block_bytes),
                  block_of(encoder.get(), id, block_bytes))
            << id;
    }
}

std::string shape_name(const testing::TestParamInfo<Shape>& info) {
    return "N" + std::to_string(info.param.block_count) + "x" +
           std::to_string(info.param.block_bytes);
}

INSTANTIATE_TEST_SUITE_P(BlockCounts, WirehairRoundTrip,
                         testing::Values(Shape{2, 1, 1}, Shape{2, 40, 3}, Shape{3, 33, 33},
                                         Shape{4, 160, 160}, Shape{5, 1146, 1}, Shape{8, 31, 30},
                                         Shape{13, 64, 17}, Shape{16, 65, 65}, Shape{17, 100, 99},
                                         Shape{40, 128, 5}, Shape{100, 200, 200}, Shape{257, 9, 2},
                                         Shape{1000, 50, 13}, Shape{2047, 3, 3}, Shape{2048, 4, 1},
                                         Shape{9999, 8, 8}, Shape{64000, 2, 1}),
                         shape_name);

// All source blocks, in any order, are the message without any solving; the decoder can still
// become an encoder.
TEST(Wirehair, SourceBlocksAloneAreEnough) {
    constexpr uint32_t kBlocks = 50;
    constexpr uint32_t kBytes = 21;
    const Bytes message = random_message(kBlocks * kBytes - 4, 3);
    const CodecOwner encoder = make_encoder(message, kBytes);
    const CodecOwner decoder = make_decoder(message.size(), kBytes);
    for (uint32_t id = kBlocks; id-- > 0;) {
        const Bytes block = block_of(encoder.get(), id, kBytes);
        EXPECT_EQ(
            wirehair_decode(decoder.get(), id, block.data(), static_cast<uint32_t>(block.size())),
            id == 0 ? Wirehair_Success : Wirehair_NeedMore);
    }
    EXPECT_EQ(recovered(decoder.get(), message.size()), message);
    ASSERT_EQ(wirehair_decoder_becomes_encoder(decoder.get()), Wirehair_Success);
    EXPECT_EQ(block_of(decoder.get(), 1000, kBytes), block_of(encoder.get(), 1000, kBytes));
}

// The audio stream's code: four blocks and two repair blocks.
TEST(Wirehair, AnyFourOfSixPiecesRestoreFourBlocksOfAnyLength) {
    for (uint32_t bytes = 1; bytes <= 1146; ++bytes) {
        const Bytes message = random_message(size_t{4} * bytes, bytes);
        const CodecOwner encoder = make_encoder(message, bytes);
        std::vector<Bytes> pieces;
        for (uint32_t id = 0; id < 6; ++id)
            pieces.push_back(block_of(encoder.get(), id, bytes));
        for (uint32_t first = 0; first < 6; ++first) {
            for (uint32_t second = first + 1; second < 6; ++second) {
                const CodecOwner decoder = make_decoder(message.size(), bytes);
                WirehairResult result = Wirehair_InvalidInput;
                for (uint32_t id = 0; id < 6; ++id) {
                    if (id == first || id == second) continue;
                    result = wirehair_decode(decoder.get(), id, pieces[id].data(), bytes);
                }
                ASSERT_EQ(result, Wirehair_Success) << bytes << ": " << first << ", " << second;
                ASSERT_EQ(recovered(decoder.get(), message.size()), message);
            }
        }
    }
}

// Receivers in the field compute these bytes: they may not change.
TEST(Wirehair, RepairBlocksOfFourSourceBlocksStayWhatTheyAre) {
    const std::string text = "The quick brown fox jumps over!!";
    const CodecOwner encoder = make_encoder(Bytes(text.begin(), text.end()), 8);
    EXPECT_EQ(block_of(encoder.get(), 4, 8),
              (Bytes{0xbc, 0x2c, 0xd5, 0x75, 0x82, 0xc8, 0x0b, 0x06}));
    EXPECT_EQ(block_of(encoder.get(), 5, 8),
              (Bytes{0x7c, 0x65, 0xb4, 0xfc, 0x75, 0xdc, 0xd2, 0xda}));
    EXPECT_EQ(block_of(encoder.get(), 1000000, 8),
              (Bytes{0xc6, 0x4d, 0x35, 0x78, 0x1f, 0xfc, 0xf9, 0x87}));
}

TEST(Wirehair, NeedsFewBlocksMoreThanTheMessageHas) {
    uint32_t total_trials = 0;
    uint32_t total_extra = 0;
    uint32_t twice = 0;
    std::mt19937 random(11);
    for (const uint32_t block_count :
         {2U, 3U, 4U, 5U, 7U, 9U, 12U, 17U, 18U, 30U, 64U, 65U, 100U, 180U, 400U, 1000U}) {
        const Bytes message = random_message(block_count, 1);
        const CodecOwner encoder = make_encoder(message, 1);
        const CodecOwner decoder = make_decoder(message.size(), 1);
        const uint32_t trials = std::clamp(20000 / block_count, 40U, 400U);
        uint32_t extra = 0;
        for (uint32_t i = 0; i < trials; ++i) {
            ASSERT_EQ(wirehair_decoder_create(decoder.get(), message.size(), 1), decoder.get());
            const double loss = 0.05 + 0.8 * i / trials;
            const uint32_t needed =
                feed(decoder.get(), encoder.get(), block_count, 1, loss, random);
            extra += needed;
            twice += needed > 1 ? 1 : 0;
        }
        if (trials == 400) {
            EXPECT_LT(extra, trials * 0.05) << block_count << " blocks";
        }
        total_trials += trials;
        total_extra += extra;
    }
    EXPECT_LT(total_extra, total_trials * 0.03);
    EXPECT_LT(twice, total_trials * 0.004);
}

TEST(Wirehair, OneCodecServesManyMessagesInBothRoles) {
    ASSERT_EQ(wirehair_init(), Wirehair_Success);
    CodecOwner codec;
    CodecOwner other;
    std::mt19937 random(5);
    for (const auto& [block_count, block_bytes] :
         {std::pair{4U, 80U}, {300U, 16U}, {300U, 24U}, {2U, 500U}, {4U, 80U}, {1000U, 2U}}) {
        const Bytes message = random_message(size_t{block_count} * block_bytes, block_count);
        // What encoded the message before decodes the next one, and the other way round.
        std::swap(codec, other);
        const WirehairCodec encoder =
            wirehair_encoder_create(codec.release(), message.data(), message.size(), block_bytes);
        codec.reset(encoder);
        const WirehairCodec decoder =
            wirehair_decoder_create(other.release(), message.size(), block_bytes);
        other.reset(decoder);
        ASSERT_TRUE(codec && other);
        feed(decoder, encoder, block_count, block_bytes, 0.5, random);
        ASSERT_EQ(recovered(decoder, message.size()), message);
    }
}

TEST(Wirehair, CodecsOfSeveralThreadsDoNotMeet) {
    std::vector<std::jthread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            std::mt19937 random(t);
            for (const uint32_t block_count : {4U, 4U + t, 200U}) {
                const Bytes message = random_message(size_t{block_count} * 60, t);
                const CodecOwner encoder = make_encoder(message, 60);
                const CodecOwner decoder = make_decoder(message.size(), 60);
                feed(decoder.get(), encoder.get(), block_count, 60, 0.3, random);
                EXPECT_EQ(recovered(decoder.get(), message.size()), message);
            }
        });
    }
}

}  // namespace
