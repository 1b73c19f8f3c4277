#pragma once

#include <cstdint>

namespace ox::launcher {

/// What became of one packet.
enum class PacketVerdict : uint8_t {
    Data,       ///< a data packet that was needed
    Repair,     ///< a parity packet, needed or not
    Duplicate,  ///< a data packet whose place is filled or whose frame has been delivered
    Late,       ///< a data packet of a frame that has been given up
    Malformed,  ///< a header or a size that no agent sends
};

/// What one media stream's datagrams turned out to be.
struct PacketCounters {
    uint64_t packets = 0;  ///< opened with the session's key
    uint64_t data_packets = 0;
    uint64_t repair_packets = 0;
    uint64_t duplicates = 0;
    uint64_t late = 0;
    uint64_t malformed = 0;
    uint64_t undecryptable = 0;   ///< datagrams that the key does not open
    uint64_t first_media_us = 0;  ///< arrival of the first packet, 0 = none yet
    uint64_t last_media_us = 0;

    /// An opened packet that has arrived now.
    void count_arrival(uint64_t now_us) {
        if (packets++ == 0) first_media_us = now_us;
        last_media_us = now_us;
    }
    /// What it turned out to be.
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
