#include "transport/encryption.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "support/log_capture.h"
#include "transport/nonce.h"

namespace ox {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr std::array<uint8_t, 32> kKey = [] {
    std::array<uint8_t, 32> key{};
    for (size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<uint8_t>(0x80 + i);
    return key;
}();

constexpr PacketHeader kVideoHeader{.stream = 1,
                                    .frame_id = 0x12345678,
                                    .index = 0x0102,
                                    .count = 0x0304,
                                    .flags = 0x09,
                                    .group = 0,
                                    .timestamp = 0x0123456789abcdef};
const Bytes kVideoPlain{0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1f, 'p', 'i', 'c', 't', 'u', 'r', 'e'};
// The sealed bytes in this file were computed with another implementation of ChaCha20-Poly1305.
// This one: nonce 01000000 78563412 0201 0000, additional data 01000000 78563412 0201 0403 09 00
// efcdab8967452301.
const Bytes kVideoSealed{0x3a, 0xb5, 0xc8, 0xc8, 0x50, 0xbd, 0x55, 0x08, 0x1c, 0x58, 0xc9,
                         0x6e, 0xf4, 0x49, 0xd8, 0x75, 0x23, 0x99, 0xb0, 0xc7, 0xe5, 0x74,
                         0x12, 0xe3, 0x92, 0xfa, 0x8c, 0x2c, 0xf9, 0x69, 0xf1};

// In place, as the session does it.
Bytes seal(const PacketHeader& header, Bytes bytes) {
    Encryption encryption;
    EXPECT_TRUE(encryption.set_key(kKey.data(), kKey.size()));
    size_t length = bytes.size();
    bytes.resize(length + kTagBytes);
    EXPECT_TRUE(encryption.encrypt_packet(header, bytes.data(), length, bytes.data(), length));
    bytes.resize(length);
    return bytes;
}

bool opens(const std::array<uint8_t, 32>& key, const PacketHeader& header, Bytes bytes) {
    size_t length = 77;
    if (!decrypt_packet_with_key(key.data(), header, bytes.data(), bytes.size(), bytes.data(),
                                 length)) {
        EXPECT_EQ(length, 77U);
        return false;
    }
    bytes.resize(length);
    EXPECT_EQ(bytes, kVideoPlain);
    return true;
}

TEST(Nonce, BytesOfEveryKindOfPacket) {
    struct Case {
        uint32_t stream, frame_id;
        uint16_t index;
        uint8_t flags;
        std::array<uint8_t, 12> nonce;
    };
    const Case cases[] = {
        {1, 0x0a0b0c0d, 0x0102, 0x09, {1, 0, 0, 0, 0x0d, 0x0c, 0x0b, 0x0a, 0x02, 0x01, 0, 0}},
        // A video repair packet gets no pad: its index is its own.
        {1, 7, 0xfffe, 0x03, {1, 0, 0, 0, 7, 0, 0, 0, 0xfe, 0xff, 0, 0}},
        {2, 7, 1, 0x0c, {2, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0, 0}},
        {2, 7, 1, 0x24, {2, 0, 0, 0, 7, 0, 0, 0, 1, 0, 0xc3, 0xa5}},
        {0x04030201, 0xffffffff, 0, 0xff, {1, 2, 3, 4, 255, 255, 255, 255, 0, 0, 0xc3, 0xa5}},
    };
    for (const Case& c : cases) {
        std::array<uint8_t, 12> nonce{};
        audioparity::build_nonce(c.stream, c.frame_id, c.index, c.flags, nonce.data());
        EXPECT_EQ(nonce, c.nonce) << "frame " << c.frame_id << " flags " << int{c.flags};
    }
}

TEST(Encryption, SealsToKnownBytes) {
    EXPECT_EQ(seal(kVideoHeader, kVideoPlain), kVideoSealed);
    // The second repair symbol of an audio block: nonce 02000000 ffffffff 0100 c3a5, additional
    // data 02000000 ffffffff 0100 0400 24 00 0000000000000000.
    EXPECT_EQ(seal({.stream = 2, .frame_id = 0xffffffff, .index = 1, .count = 4, .flags = 0x24},
                   Bytes(5, 0x5a)),
              (Bytes{0x79, 0x70, 0x70, 0x3e, 0x70, 0x62, 0xa3, 0x04, 0xbd, 0x8a, 0xe7,
                     0x1b, 0x4d, 0x2e, 0x0d, 0xba, 0xe0, 0xbf, 0xa0, 0x8b, 0x9e}));
}

TEST(Encryption, EveryAlteredBitIsRefused) {
    ASSERT_TRUE(opens(kKey, kVideoHeader, kVideoSealed));
    for (size_t bit = 0; bit < kVideoSealed.size() * 8; ++bit) {
        Bytes altered = kVideoSealed;
        altered[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        EXPECT_FALSE(opens(kKey, kVideoHeader, altered)) << "sealed bit " << bit;
    }
    for (size_t bit = 0; bit < kHeaderBytes * 8; ++bit) {
        std::array<uint8_t, kHeaderBytes> wire{};
        std::memcpy(wire.data(), &kVideoHeader, wire.size());
        wire[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        PacketHeader altered;
        std::memcpy(&altered, wire.data(), wire.size());
        EXPECT_FALSE(opens(kKey, altered, kVideoSealed)) << "header bit " << bit;
    }
    auto other_key = kKey;
    other_key[31] ^= 1;
    EXPECT_FALSE(opens(other_key, kVideoHeader, kVideoSealed));
    // Shorter than a tag, and nothing but a tag that does not fit.
    EXPECT_FALSE(opens(kKey, kVideoHeader, Bytes(kVideoSealed.begin(), kVideoSealed.begin() + 15)));
    EXPECT_FALSE(opens(kKey, kVideoHeader, Bytes(kVideoSealed.begin(), kVideoSealed.begin() + 16)));
}

TEST(Encryption, OnlyKeysOf32BytesAreTaken) {
    const test::LogCapture log;
    Encryption encryption;
    Bytes out(kVideoSealed.size());
    size_t length = 5;
    EXPECT_FALSE(encryption.encrypt_packet(kVideoHeader, kVideoPlain.data(), kVideoPlain.size(),
                                           out.data(), length));
    EXPECT_EQ(length, 0U);
    const std::array<uint8_t, 33> key{};
    EXPECT_FALSE(encryption.set_key(key.data(), 31) || encryption.set_key(key.data(), 33));
    EXPECT_EQ(log.count("ERROR", "Encryption: invalid key size 33 (expected 32)"), 1);
}

}  // namespace
}  // namespace ox
