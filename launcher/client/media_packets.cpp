#include "launcher/client/media_packets.h"

#include <cstring>

#include "transport/encryption.h"

namespace ox::launcher {

PacketOpener::PacketOpener(std::span<const uint8_t, kKeyBytes> key) : key_(key), plaintext_{} {}

std::optional<PacketOpener::Packet> PacketOpener::open(std::span<const uint8_t> datagram) {
    if (datagram.size() < kHeaderBytes + kTagBytes || datagram.size() > kMaxDatagramBytes)
        return std::nullopt;
    Packet packet;
    std::memcpy(&packet.header, datagram.data(), kHeaderBytes);
    const auto sealed = datagram.subspan(kHeaderBytes);
    size_t length = 0;
    if (!decrypt_packet_with_key(key_.data(), packet.header, sealed.data(), sealed.size(),
                                 plaintext_.data(), length))
        return std::nullopt;
    packet.payload = std::span<const uint8_t>(plaintext_).first(length);
    return packet;
}

}  // namespace ox::launcher
