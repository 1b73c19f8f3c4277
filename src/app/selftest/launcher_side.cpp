#include "app/selftest/launcher_side.h"

#include <sodium.h>

#include <algorithm>

#include "base/byte_order.h"

namespace ox::selftest {
namespace {

using Nonce = std::array<uint8_t, crypto_aead_chacha20poly1305_ietf_NPUBBYTES>;
constexpr size_t kTag = crypto_aead_chacha20poly1305_ietf_ABYTES;

}  // namespace

Key test_key(uint8_t seed) {
    Key key{};
    for (size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<uint8_t>(seed + 7 * i);
    return key;
}

std::optional<Bytes> open_as_launcher(const Key& key, const PacketHeader& header,
                                      std::span<const uint8_t> sealed, uint16_t nonce_pad) {
    std::array<uint8_t, 22> additional{};
    store_le<uint32_t>(additional.data(), header.stream);
    store_le<uint32_t>(additional.data() + 4, header.frame_id);
    store_le<uint16_t>(additional.data() + 8, header.index);
    store_le<uint16_t>(additional.data() + 10, header.count);
    additional[12] = header.flags;
    additional[13] = header.group;
    store_le<uint64_t>(additional.data() + 14, header.timestamp);

    Nonce nonce{};
    std::copy_n(additional.begin(), 10, nonce.begin());
    store_le<uint16_t>(nonce.data() + 10, nonce_pad);

    if (sealed.size() < kTag) return std::nullopt;
    Bytes plain(sealed.size() - kTag);
    unsigned long long length = 0;
    if (::crypto_aead_chacha20poly1305_ietf_decrypt(
            plain.data(), &length, nullptr, sealed.data(), sealed.size(), additional.data(),
            additional.size(), nonce.data(), key.data()) != 0) {
        return std::nullopt;
    }
    return plain;
}

Bytes seal_input_as_launcher(const Key& key, const InputBytes& packet) {
    Nonce nonce{};
    ::randombytes_buf(nonce.data(), nonce.size());
    Bytes datagram(nonce.begin(), nonce.end());
    datagram.resize(nonce.size() + packet.size() + kTag);
    unsigned long long sealed = 0;
    ::crypto_aead_chacha20poly1305_ietf_encrypt(datagram.data() + nonce.size(), &sealed,
                                                packet.data(), packet.size(), nullptr, 0, nullptr,
                                                nonce.data(), key.data());
    datagram.resize(nonce.size() + static_cast<size_t>(sealed));
    return datagram;
}

}  // namespace ox::selftest
