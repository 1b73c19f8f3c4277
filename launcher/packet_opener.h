#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret.h"
#include "transport/packet_header.h"

namespace ox::launcher {

/// Opens the datagrams of one media stream: header, then a payload sealed with the stream's key.
/// Used by one thread.
class PacketOpener {
  public:
    static constexpr size_t kKeyBytes = 32;

    /// A packet as the agent built it. `payload` lies in the opener and lasts until the next
    /// `open`.
    struct Packet {
        PacketHeader header;
        std::span<const uint8_t> payload;
    };

    explicit PacketOpener(std::span<const uint8_t, kKeyBytes> key);
    PacketOpener(const PacketOpener&) = delete;
    PacketOpener& operator=(const PacketOpener&) = delete;

    /// The packet in `datagram`, or nothing when its size is impossible or when it was not sealed
    /// with this key or changed on the way. Any bytes are safe to pass.
    std::optional<Packet> open(std::span<const uint8_t> datagram);

  private:
    SecretArray<kKeyBytes> key_;
    std::array<uint8_t, kMaxDatagramBytes> plaintext_;
};

}  // namespace ox::launcher
