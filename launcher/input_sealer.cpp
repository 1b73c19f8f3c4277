#include "launcher/input_sealer.h"

#include <sodium.h>

#include <algorithm>
#include <cstring>

#include "base/byte_order.h"

namespace ox::launcher {

namespace {

InputSealer::Prefix random_prefix() {
    InputSealer::Prefix prefix{};
    randombytes_buf(prefix.data(), prefix.size());
    return prefix;
}

}  // namespace

InputSealer::InputSealer(std::span<const uint8_t, kKeyBytes> key)
    : InputSealer(key, random_prefix(), 0) {}

InputSealer::InputSealer(std::span<const uint8_t, kKeyBytes> key, const Prefix& prefix,
                         uint32_t first)
    : key_(key), prefix_(prefix), count_(first) {}

std::optional<InputSealer::Datagram> InputSealer::seal(InputPacket packet) {
    if (count_ > UINT32_MAX) return std::nullopt;
    const auto count = static_cast<uint32_t>(count_++);
    packet.version = InputPacket::kVersion;
    packet.seq = static_cast<uint16_t>(count);
    std::array<uint8_t, sizeof(InputPacket)> plaintext{};
    std::memcpy(plaintext.data(), &packet, sizeof packet);

    Datagram datagram{};
    std::ranges::copy(prefix_, datagram.begin());
    store_le(datagram.data() + prefix_.size(), count);
    if (crypto_aead_chacha20poly1305_ietf_encrypt(datagram.data() + kInputNonceBytes, nullptr,
                                                  plaintext.data(), plaintext.size(), nullptr, 0,
                                                  nullptr, datagram.data(), key_.data()) != 0)
        return std::nullopt;
    return datagram;
}

}  // namespace ox::launcher
