#pragma once

#include <cstddef>
#include <cstdint>

#include "audio/audioparity.h"
#include "transport/packet_header.h"

namespace ox {

/// Header of the media packet that carries one audio frame.
constexpr PacketHeader audio_data_header(uint32_t sequence, uint64_t timestamp) {
    return {.stream = kStreamAudio,
            .frame_id = sequence,
            .index = 0,
            .count = 1,
            .flags = static_cast<uint8_t>(packet_flags::AUDIO | packet_flags::LAST_IN_FRAME),
            .group = 0,
            .timestamp = timestamp};
}

/// Header of the media packet that carries repair symbol `repair` (0 or 1) of the block that begins
/// with sequence number `base`; `timestamp` is that of the block's last frame.
constexpr PacketHeader audio_repair_header(uint32_t base, size_t repair, uint64_t timestamp) {
    return {.stream = kStreamAudio,
            .frame_id = base,
            .index = static_cast<uint16_t>(repair),
            .count = audioparity::kDataFrames,
            .flags = static_cast<uint8_t>(packet_flags::AUDIO_PARITY | packet_flags::AUDIO),
            .group = 0,
            .timestamp = timestamp};
}

}  // namespace ox
