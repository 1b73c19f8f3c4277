#pragma once

#include <cstdint>

#include "input/input_packet.h"

namespace ox::launcher {

/// Which frames a launcher misses: from the one after the last that it could decode up to the
/// newest lost one.
struct LostFrames {
    uint32_t last_delivered = 0;
    uint32_t first_missing = 0;
    uint32_t last_missing = 0;
    uint8_t attempt = 0;  ///< 0 for the first request about this loss
};

/// What the agent is told about reception, in a packet where the control channel would be too slow.
struct MediaReport {
    double loss_pct = 0;
    double rtt_ms = 0;
    double decoded_fps = 0;
    bool keyframe_wanted = false;
};

/// Feedback packets: input packets of the kinds 6, 7 and 8, whose payload of 16 bytes begins at
/// offset 12. Values that do not fit are cut to the largest that does.
InputPacket make_keyframe_request();
InputPacket make_lost_frames_request(const LostFrames& lost);
InputPacket make_media_feedback(const MediaReport& report);

}  // namespace ox::launcher
