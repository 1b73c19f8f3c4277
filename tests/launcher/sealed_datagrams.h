#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "transport/encryption.h"
#include "transport/packetizer.h"

namespace ox::test {

using Datagram = std::vector<uint8_t>;

/// What an agent without a repair ratio sends for `frame`, sealed with `key` of 32 bytes.
inline std::vector<Datagram> sealed_datagrams(const EncodedFrame& frame, const uint8_t* key) {
    Encryption encryption;
    encryption.set_key(key, Encryption::kKeyBytes);
    std::vector<OutgoingPacket> packets;
    Packetizer().packetize(frame, kStreamVideo, packets);
    std::vector<Datagram> datagrams;
    for (const OutgoingPacket& packet : packets) {
        Datagram& datagram = datagrams.emplace_back(kMaxDatagramBytes);
        std::memcpy(datagram.data(), &packet.header, kHeaderBytes);
        size_t sealed = 0;
        encryption.encrypt_packet(packet.header, packet.payload.data(), packet.payload.size(),
                                  datagram.data() + kHeaderBytes, sealed);
        datagram.resize(kHeaderBytes + sealed);
    }
    return datagrams;
}

}  // namespace ox::test
