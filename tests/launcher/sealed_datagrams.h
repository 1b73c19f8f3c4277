#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "transport/encryption.h"
#include "transport/packetizer.h"

namespace ox::test {

using Datagram = std::vector<uint8_t>;

/// A media packet sealed with `key` of 32 bytes.
inline Datagram sealed_datagram(const PacketHeader& header, std::span<const uint8_t> payload,
                                const uint8_t* key) {
    Encryption encryption;
    encryption.set_key(key, Encryption::kKeyBytes);
    Datagram datagram(kHeaderBytes + payload.size() + kTagBytes);
    std::memcpy(datagram.data(), &header, kHeaderBytes);
    size_t sealed = 0;
    encryption.encrypt_packet(header, payload.data(), payload.size(),
                              datagram.data() + kHeaderBytes, sealed);
    return datagram;
}

/// An agent's datagrams of `frame`, with parity for keyframes only.
inline std::vector<Datagram> sealed_datagrams(const EncodedFrame& frame, const uint8_t* key) {
    std::vector<OutgoingPacket> packets;
    Packetizer().packetize(frame, kStreamVideo, packets);
    std::vector<Datagram> datagrams;
    for (const OutgoingPacket& packet : packets)
        datagrams.push_back(sealed_datagram(packet.header, packet.payload.bytes(), key));
    return datagrams;
}

}  // namespace ox::test
