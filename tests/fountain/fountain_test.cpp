// The field's arithmetic and the code's blocks.

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <random>
#include <vector>

#include "fountain/gf256.h"
#include "fountain/wirehair.h"

namespace ox::fountain {
namespace {

// The product of every two elements, by the schoolbook: shift, add, reduce.
TEST(Gf256, MultipliesBlocksAsTheFieldDoesAndInverts) {
    using Bytes = std::vector<uint8_t>;
    constexpr uint8_t kUntouched = 0x5A;
    for (unsigned factor = 0; factor < 256; ++factor) {
        const auto f = static_cast<uint8_t>(factor);
        Bytes values(256);
        Bytes products(256);
        for (unsigned value = 0; value < 256; ++value) {
            unsigned product = 0;
            for (unsigned bit = 0; bit < 8; ++bit)
                if ((value >> bit & 1U) != 0) product ^= factor << bit;
            for (unsigned bit = 15; bit >= 8; --bit)
                if ((product >> bit & 1U) != 0) product ^= kFieldPolynomial << (bit - 8);
            values[value] = static_cast<uint8_t>(value);
            products[value] = static_cast<uint8_t>(product);
            EXPECT_EQ(gf256_mul(f, values[value]), products[value]);
        }
        EXPECT_TRUE(factor == 0 || products[gf256_inv(f)] == 1);

        const size_t length = 256 - factor % 40;  // what follows stays as it is
        Bytes multiplied(256, kUntouched);
        gf256_mul_mem(multiplied.data(), values.data(), f, length);
        Bytes accumulated = values;
        gf256_muladd_mem(accumulated.data(), f, values.data(), length);
        Bytes added = products;
        gf256_add_mem(added.data(), values.data(), length);
        for (size_t i = 0; i < 256; ++i) {
            const bool inside = i < length;
            const auto sum = static_cast<uint8_t>(values[i] ^ products[i]);
            EXPECT_EQ(multiplied[i], inside ? products[i] : kUntouched);
            EXPECT_EQ(accumulated[i], inside ? sum : values[i]);
            EXPECT_EQ(added[i], inside ? sum : products[i]);
        }
    }
}

using Bytes = std::vector<uint8_t>;

Bytes random_message(size_t bytes, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes message(bytes);
    for (uint8_t& byte : message)
        byte = static_cast<uint8_t>(random());
    return message;
}

WirehairCodecPtr make_encoder(const Bytes& message, uint32_t block_bytes) {
    EXPECT_EQ(wirehair_init(), Wirehair_Success);
    return WirehairCodecPtr(
        wirehair_encoder_create(nullptr, message.data(), message.size(), block_bytes));
}

WirehairCodecPtr make_decoder(size_t message_bytes, uint32_t block_bytes) {
    return WirehairCodecPtr(wirehair_decoder_create(nullptr, message_bytes, block_bytes));
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

WirehairResult decode(WirehairCodec decoder, uint32_t id, const Bytes& block) {
    return wirehair_decode(decoder, id, block.data(), static_cast<uint32_t>(block.size()));
}

/// Feeds the decoder through a lossy channel until it has enough blocks; returns how many.
uint32_t feed(WirehairCodec decoder, WirehairCodec encoder, uint32_t block_bytes, double loss,
              std::mt19937& random) {
    std::geometric_distribution<uint32_t> lost(1 - loss);
    WirehairResult result = Wirehair_NeedMore;
    uint32_t fed = 0;
    for (uint32_t id = lost(random); result == Wirehair_NeedMore; id += 1 + lost(random)) {
        result = decode(decoder, id, block_of(encoder, id, block_bytes));
        ++fed;
    }
    EXPECT_EQ(result, Wirehair_Success);
    return fed;
}

// Source blocks, decoding from a lossy channel, recovery of the message and its last block, and the
// decoder turned into an encoder.
TEST(Wirehair, AMessageOfAnyShapeSurvivesLossAndCanBeSentOn) {
    const std::array<uint32_t, 3> shapes[] = {{2, 1, 1},     {4, 160, 160},  {5, 1146, 1},
                                              {17, 100, 99}, {1000, 50, 13}, {64000, 2, 1}};
    for (const auto [blocks, block_bytes, final_bytes] : shapes) {
        SCOPED_TRACE(blocks);
        const size_t full = size_t{blocks - 1} * block_bytes;
        const Bytes message = random_message(full + final_bytes, blocks);
        const WirehairCodecPtr encoder = make_encoder(message, block_bytes);
        const WirehairCodecPtr decoder = make_decoder(message.size(), block_bytes);
        const Bytes last(message.end() - static_cast<ptrdiff_t>(final_bytes), message.end());
        EXPECT_EQ(block_of(encoder.get(), blocks - 1, block_bytes), last);

        std::mt19937 random(blocks);
        feed(decoder.get(), encoder.get(), block_bytes, 0.4, random);
        EXPECT_TRUE(recovered(decoder.get(), message.size()) == message);
        Bytes block(block_bytes);
        uint32_t length = 0;
        EXPECT_EQ(wirehair_recover_block(decoder.get(), blocks - 1, block.data(), &length),
                  Wirehair_Success);
        block.resize(length);
        EXPECT_EQ(block, last);
        EXPECT_EQ(wirehair_decoder_becomes_encoder(decoder.get()), Wirehair_Success);
        for (const uint32_t id : {0U, blocks - 1, blocks, blocks + 77, UINT32_MAX}) {
            EXPECT_EQ(block_of(decoder.get(), id, block_bytes),
                      block_of(encoder.get(), id, block_bytes))
                << id;
        }
    }
}

// Every block count has a solvable matrix and a low overhead. Codecs are reused for all messages,
// in both roles.
TEST(Wirehair, NeedsFewBlocksMoreThanTheMessageHas) {
    uint32_t trials = 0;
    uint32_t extra = 0;
    std::mt19937 random(11);
    WirehairCodecPtr one = make_encoder(random_message(9, 1), 3);
    WirehairCodecPtr other = make_decoder(9, 3);
    for (uint32_t blocks = 2; blocks <= 64000; blocks += blocks < 300 ? 1 : 5 + blocks) {
        const Bytes message = random_message(blocks, 1);
        std::swap(one, other);
        ASSERT_EQ(wirehair_encoder_create(one.get(), message.data(), blocks, 1), one.get());
        for (uint32_t i = 0; i < (blocks < 300 ? 12 : 1); ++i, ++trials) {
            ASSERT_EQ(wirehair_decoder_create(other.get(), blocks, 1), other.get());
            extra += feed(other.get(), one.get(), 1, 0.05 + 0.07 * i, random) - blocks;
            ASSERT_TRUE(recovered(other.get(), blocks) == message) << blocks;
        }
    }
    EXPECT_LT(extra, trials * 0.03);
}

}  // namespace
}  // namespace ox::fountain
