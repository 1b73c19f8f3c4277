#include "transport/encryption.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "support/log_capture.h"

namespace ox {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr std::array<uint8_t, 32> kKey{0x80, 0x81, 0x82};

constexpr PacketHeader kVideoHeader{.stream = 1,
                                    .frame_id = 0x12345678,
                                    .index = 0x0102,
                                    .count = 0x0304,
                                    .flags = 0x09,
                                    .group = 0,
                                    .timestamp = 0x0123456789abcdef};
const Bytes kVideoPlain{0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1f, 'p', 'i', 'c', 't', 'u', 'r', 'e'};
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

// The bytes themselves are pinned by the wire vectors.
TEST(Encryption, EveryAlteredBitIsRefused) {
    const Bytes sealed = seal(kVideoHeader, kVideoPlain);
    ASSERT_TRUE(opens(kKey, kVideoHeader, sealed));
    for (size_t bit = 0; bit < sealed.size() * 8; ++bit) {
        Bytes altered = sealed;
        altered[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        EXPECT_FALSE(opens(kKey, kVideoHeader, altered)) << "sealed bit " << bit;
    }
    for (size_t bit = 0; bit < kHeaderBytes * 8; ++bit) {
        std::array<uint8_t, kHeaderBytes> wire{};
        std::memcpy(wire.data(), &kVideoHeader, wire.size());
        wire[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        PacketHeader altered;
        std::memcpy(&altered, wire.data(), wire.size());
        EXPECT_FALSE(opens(kKey, altered, sealed)) << "header bit " << bit;
    }
    auto other_key = kKey;
    other_key[31] ^= 1;
    EXPECT_FALSE(opens(other_key, kVideoHeader, sealed));
    // Shorter than a tag, and nothing but a tag that does not fit.
    EXPECT_FALSE(opens(kKey, kVideoHeader, Bytes(sealed.begin(), sealed.begin() + 15)));
    EXPECT_FALSE(opens(kKey, kVideoHeader, Bytes(sealed.begin(), sealed.begin() + 16)));
}

TEST(Encryption, OnlyKeysOf32BytesAreTaken) {
    const test::LogCapture log;
    Encryption encryption;
    Bytes out(kVideoPlain.size() + kTagBytes);
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
