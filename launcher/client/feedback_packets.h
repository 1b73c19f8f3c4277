#pragma once

#include <cstdint>

#include "input/input_packet.h"

namespace ox::launcher {

/// The frames after the last decodable one, up to the newest lost one.
struct LostFrames {
    uint32_t last_delivered = 0;
    uint32_t first_missing = 0;
    uint32_t last_missing = 0;
    uint8_t attempt = 0;  ///< 0 for the first request about this loss
};

struct MediaReport {
    double loss_pct = 0;
    double rtt_ms = 0;
    double decoded_fps = 0;
    bool keyframe_wanted = false;
};

/// Feedback packets: input packets of the kinds 6, 7 and 8 with a payload of 16 bytes at offset 12.
/// Values are clamped to their fields.
InputPacket make_keyframe_request();
InputPacket make_lost_frames_request(const LostFrames& lost);
InputPacket make_media_feedback(const MediaReport& report);

}  // namespace ox::launcher
