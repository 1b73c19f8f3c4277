#include "transport/encryption.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <vector>

namespace ox {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr std::array<uint8_t, 32> kKey{0x80, 0x81, 0x82};
const Bytes kPlain{0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1f, 'p', 'i', 'c', 't', 'u', 'r', 'e'};

using Header = std::array<uint8_t, kHeaderBytes>;

bool opens(const std::array<uint8_t, 32>& key, const Header& header, Bytes bytes) {
    size_t length = 77;
    const bool opened = decrypt_packet_with_key(key.data(), std::bit_cast<PacketHeader>(header),
                                                bytes.data(), bytes.size(), bytes.data(), length);
    EXPECT_EQ(length, opened ? kPlain.size() : 77);
    return opened;
}

// The bytes themselves are pinned by the wire vectors.
TEST(Encryption, EveryAlteredBitIsRefused) {
    const Header header{1, 0, 0, 0, 0x78, 0x56, 0x34, 0x12, 2, 1, 4, 3, 9};
    Encryption encryption;
    ASSERT_TRUE(encryption.set_key(kKey.data(), kKey.size()));
    Bytes sealed = kPlain;  // in place, as the session does it
    size_t length = 0;
    sealed.resize(kPlain.size() + kTagBytes);
    ASSERT_TRUE(encryption.encrypt_packet(std::bit_cast<PacketHeader>(header), sealed.data(),
                                          kPlain.size(), sealed.data(), length));
    ASSERT_EQ(length, sealed.size());
    const auto altered = [](auto bytes, size_t bit) {
        bytes[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        return bytes;
    };
    ASSERT_TRUE(opens(kKey, header, sealed));
    for (size_t bit = 0; bit < sealed.size() * 8; ++bit)
        EXPECT_FALSE(opens(kKey, header, altered(sealed, bit))) << bit;
    for (size_t bit = 0; bit < kHeaderBytes * 8; ++bit)
        EXPECT_FALSE(opens(kKey, altered(header, bit), sealed)) << bit;
    EXPECT_FALSE(opens(altered(kKey, 255), header, sealed));
    // Shorter than a tag, and nothing but a tag that does not fit.
    EXPECT_FALSE(opens(kKey, header, Bytes(sealed.begin(), sealed.begin() + 15)));
    EXPECT_FALSE(opens(kKey, header, Bytes(sealed.begin(), sealed.begin() + 16)));
}

}  // namespace
}  // namespace ox
