#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret.h"
#include "transport/packet.h"

namespace ox::launcher {

/// Decrypts the datagrams of one media stream. Used by one thread.
class PacketOpener {
  public:
    static constexpr size_t kKeyBytes = 32;

    /// `payload` is valid until the next `open`.
    struct Packet {
        PacketHeader header;
        std::span<const uint8_t> payload;
    };

    explicit PacketOpener(std::span<const uint8_t, kKeyBytes> key);
    PacketOpener(const PacketOpener&) = delete;
    PacketOpener& operator=(const PacketOpener&) = delete;

    /// Nothing for an impossible size, another key or altered bytes. Any bytes are safe to pass.
    std::optional<Packet> open(std::span<const uint8_t> datagram);

  private:
    SecretArray<kKeyBytes> key_;
    std::array<uint8_t, kMaxDatagramBytes> plaintext_;
};

enum class PacketVerdict : uint8_t {
    Data,       ///< a data packet that was needed
    Repair,     ///< a parity packet, needed or not
    Duplicate,  ///< a data packet received before, or one of a delivered frame
    Late,       ///< a data packet of a frame that has been given up
    Malformed,  ///< a header or a size that no agent sends
};

/// Counts of one media stream's datagrams.
struct PacketCounters {
    uint64_t packets = 0;  ///< decrypted
    uint64_t data_packets = 0;
    uint64_t repair_packets = 0;
    uint64_t duplicates = 0;
    uint64_t late = 0;
    uint64_t malformed = 0;
    uint64_t undecryptable = 0;   ///< datagrams that the key does not decrypt
    uint64_t first_media_us = 0;  ///< arrival of the first packet, 0 = none yet
    uint64_t last_media_us = 0;

    /// One decrypted packet.
    void count_arrival(uint64_t now_us) {
        if (packets++ == 0) first_media_us = now_us;
        last_media_us = now_us;
    }
    void count(PacketVerdict verdict) {
        switch (verdict) {
            case PacketVerdict::Data:
                ++data_packets;
                break;
            case PacketVerdict::Repair:
                ++repair_packets;
                break;
            case PacketVerdict::Duplicate:
                ++duplicates;
                break;
            case PacketVerdict::Late:
                ++late;
                break;
            case PacketVerdict::Malformed:
                ++malformed;
                break;
        }
    }
};

}  // namespace ox::launcher
