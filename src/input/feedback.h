#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "input/input_packet.h"

namespace ox {

/// Payload of an RfiRequest: which frames the launcher lost. 16 bytes at packet offset 12,
/// little-endian: u32 last delivered, u32 first missing, u32 last missing, u8 flags (bit 0: epoch),
/// u8 attempt, two zero bytes.
struct RfiRequest {
    uint32_t last_delivered = 0;
    uint32_t first_missing = 0;
    uint32_t last_missing = 0;
    bool epoch = false;
    uint8_t attempt = 0;
    bool all_zero = false;  ///< as an older launcher sends it: a plain wish for a keyframe
};
RfiRequest parse_rfi_request(const InputPacket& packet);

/// Name of the first rule that the request breaks; empty when it is valid.
std::string_view rfi_rejection(const RfiRequest& request);

/// Payload of a MediaFeedback: u16 loss in hundredths of a percent, u16 round trip in ms, u16
/// decoded frames per second x 10, u8 flags (bit 0: keyframe wanted), the rest zero.
struct MediaFeedback {
    float loss_pct = 0;
    float rtt_ms = 0;
    float decoded_fps = 0;
    bool keyframe_wanted = false;
};
MediaFeedback parse_media_feedback(const InputPacket& packet);

}  // namespace ox
