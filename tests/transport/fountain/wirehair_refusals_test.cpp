#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "transport/fountain/wirehair.h"

namespace {

struct FreeCodec {
    void operator()(WirehairCodec codec) const { wirehair_free(codec); }
};
using CodecOwner = std::unique_ptr<WirehairCodec_t, FreeCodec>;

class WirehairRefusals : public testing::Test {
  protected:
    // Ten bytes in blocks of four: three blocks, the last one two bytes long.
    static constexpr uint32_t kBlock = 4;
    static constexpr uint32_t kFinal = 2;

    void SetUp() override {
        ASSERT_EQ(wirehair_init(), Wirehair_Success);
        std::iota(message_.begin(), message_.end(), uint8_t{1});
        encoder_.reset(wirehair_encoder_create(nullptr, message_.data(), message_.size(), kBlock));
        decoder_.reset(wirehair_decoder_create(nullptr, message_.size(), kBlock));
        ASSERT_TRUE(encoder_ && decoder_);
    }

    std::array<uint8_t, 10> message_{};
    CodecOwner encoder_;
    CodecOwner decoder_;
};

[[noreturn]] void use_before_and_after_init() {
    const std::array<uint8_t, 8> message{};
    const bool refused = wirehair_init_(1) == Wirehair_InvalidInput &&
                         wirehair_init_(3) == Wirehair_InvalidInput &&
                         wirehair_encoder_create(nullptr, message.data(), 8, 4) == nullptr &&
                         wirehair_decoder_create(nullptr, 8, 4) == nullptr;
    const bool initialised = wirehair_init() == Wirehair_Success;
    const CodecOwner later(wirehair_decoder_create(nullptr, 8, 4));
    std::_Exit(refused && initialised && later ? 0 : 1);
}

TEST(WirehairInit, NothingIsCreatedBeforeIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process, whatever ran before here
    EXPECT_EXIT(use_before_and_after_init(), testing::ExitedWithCode(0), "");
}

TEST(WirehairResultString, NamesEveryValue) {
    const std::vector<std::string> names{"Wirehair_Success",
                                         "Wirehair_NeedMore",
                                         "Wirehair_InvalidInput",
                                         "Wirehair_BadDenseSeed",
                                         "Wirehair_BadPeelSeed",
                                         "Wirehair_BadInput_SmallN",
                                         "Wirehair_BadInput_LargeN",
                                         "Wirehair_ExtraInsufficient",
                                         "Unknown",
                                         "Wirehair_OOM",
                                         "Wirehair_UnsupportedPlatform",
                                         "Unknown"};
    for (size_t value = 0; value < names.size(); ++value) {
        EXPECT_EQ(wirehair_result_string(static_cast<WirehairResult>(value)), names[value]);
    }
    EXPECT_STREQ(wirehair_result_string(static_cast<WirehairResult>(-1)), "Unknown");
}

TEST_F(WirehairRefusals, UnsuitableMessagesGiveNoCodec) {
    const std::vector<uint8_t> large(64001);
    const struct {
        uint64_t message_bytes;
        uint32_t block_bytes;
        bool possible;
    } cases[] = {
        {0, 4, false},    {10, 0, false},         {10, 10, false},
        {10, 11, false},  {10, 9, true},          {2, 1, true},
        {1, 1, false},    {64000, 1, true},       {64001, 1, false},
        {64001, 2, true}, {UINT64_MAX, 1, false}, {UINT64_MAX, UINT32_MAX, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.message_bytes) + " / " + std::to_string(c.block_bytes));
        EXPECT_EQ(
            CodecOwner(wirehair_decoder_create(nullptr, c.message_bytes, c.block_bytes)) != nullptr,
            c.possible);
        if (c.message_bytes > large.size()) continue;
        EXPECT_EQ(CodecOwner(wirehair_encoder_create(nullptr, large.data(), c.message_bytes,
                                                     c.block_bytes)) != nullptr,
                  c.possible);
    }
    EXPECT_EQ(wirehair_encoder_create(nullptr, nullptr, 10, 4), nullptr);
    // A refused reuse leaves the codec with its owner, for another try.
    EXPECT_EQ(wirehair_decoder_create(decoder_.get(), 3, 4), nullptr);
    EXPECT_EQ(wirehair_decode(decoder_.get(), 0, message_.data(), kBlock), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_decoder_create(decoder_.get(), 10, 4), decoder_.get());
}

TEST_F(WirehairRefusals, EncodeChecksItsArguments) {
    std::array<uint8_t, kBlock + 1> out{};
    uint32_t written = 77;
    EXPECT_EQ(wirehair_encode(nullptr, 0, out.data(), kBlock, &written), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_encode(encoder_.get(), 0, nullptr, kBlock, &written), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_encode(encoder_.get(), 0, out.data(), kBlock, nullptr),
              Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_encode(decoder_.get(), 0, out.data(), kBlock, &written),
              Wirehair_InvalidInput);
    for (const uint32_t id : {0U, 2U, 3U, UINT32_MAX}) {
        const uint32_t length = id == 2 ? kFinal : kBlock;
        out.fill(0xEE);
        written = 77;
        EXPECT_EQ(wirehair_encode(encoder_.get(), id, out.data(), length - 1, &written),
                  Wirehair_InvalidInput);
        EXPECT_EQ(written, 0U);
        EXPECT_EQ(out.front(), 0xEE);
        EXPECT_EQ(wirehair_encode(encoder_.get(), id, out.data(), kBlock + 1, &written),
                  Wirehair_Success);
        EXPECT_EQ(written, length);
        EXPECT_EQ(out[length], 0xEE) << "written past the block";
    }
}

TEST_F(WirehairRefusals, DecodeChecksItsArguments) {
    const uint8_t* const bytes = message_.data();
    const std::array<uint8_t, kBlock> padded_last{9, 10, 55, 66};  // what pads it does not count
    const struct {
        WirehairCodec codec;
        uint32_t id;
        const uint8_t* block;
        uint32_t length;
        WirehairResult result;
    } cases[] = {
        {nullptr, 0, bytes, kBlock, Wirehair_InvalidInput},
        {encoder_.get(), 0, bytes, kBlock, Wirehair_InvalidInput},
        {decoder_.get(), 0, nullptr, kBlock, Wirehair_InvalidInput},
        {decoder_.get(), 0, bytes, 0, Wirehair_InvalidInput},
        {decoder_.get(), 0, bytes, kBlock - 1, Wirehair_InvalidInput},
        {decoder_.get(), 0, bytes, kBlock + 1, Wirehair_InvalidInput},
        {decoder_.get(), 9, bytes, kFinal, Wirehair_InvalidInput},
        {decoder_.get(), 2, bytes, kFinal - 1, Wirehair_InvalidInput},
        {decoder_.get(), 2, bytes, kFinal + 1, Wirehair_InvalidInput},
        {decoder_.get(), 0, bytes, kBlock, Wirehair_NeedMore},
        {decoder_.get(), 0, bytes, kBlock, Wirehair_NeedMore},  // twice counts once
        {decoder_.get(), 2, padded_last.data(), kBlock, Wirehair_NeedMore},
        {decoder_.get(), 2, bytes + 8, kFinal, Wirehair_NeedMore},
        {decoder_.get(), 1, bytes + 4, kBlock, Wirehair_Success},
        {decoder_.get(), 7, bytes, kBlock, Wirehair_Success},  // not needed any more
        {decoder_.get(), 7, bytes, 1, Wirehair_InvalidInput},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        EXPECT_EQ(wirehair_decode(c.codec, c.id, c.block, c.length), c.result) << "case " << i;
    }
    std::array<uint8_t, 10> restored{};
    EXPECT_EQ(wirehair_recover(decoder_.get(), restored.data(), restored.size()), Wirehair_Success);
    EXPECT_EQ(restored, message_);
}

TEST_F(WirehairRefusals, NothingIsRecoveredTooEarlyOrFromTheWrongCodec) {
    std::array<uint8_t, 10> out{};
    uint32_t bytes = 0;
    const auto expect = [&](WirehairCodec codec, WirehairResult result) {
        EXPECT_EQ(wirehair_recover(codec, out.data(), out.size()), result);
        EXPECT_EQ(wirehair_recover_block(codec, 0, out.data(), &bytes), result);
    };
    expect(nullptr, Wirehair_InvalidInput);
    expect(encoder_.get(), Wirehair_InvalidInput);
    expect(decoder_.get(), Wirehair_NeedMore);
    EXPECT_EQ(wirehair_decoder_becomes_encoder(nullptr), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_decoder_becomes_encoder(encoder_.get()), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_decoder_becomes_encoder(decoder_.get()), Wirehair_NeedMore);

    for (uint32_t id = 0; id < 3; ++id) {
        wirehair_decode(decoder_.get(), id, message_.data() + id * kBlock,
                        id < 2 ? kBlock : kFinal);
    }
    expect(decoder_.get(), Wirehair_Success);
    EXPECT_EQ(wirehair_recover(decoder_.get(), nullptr, out.size()), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_recover(decoder_.get(), out.data(), 9), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_recover_block(decoder_.get(), 3, out.data(), &bytes), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_recover_block(decoder_.get(), 0, nullptr, &bytes), Wirehair_InvalidInput);
    EXPECT_EQ(wirehair_recover_block(decoder_.get(), 0, out.data(), nullptr),
              Wirehair_InvalidInput);
    wirehair_free(nullptr);
}

}  // namespace
