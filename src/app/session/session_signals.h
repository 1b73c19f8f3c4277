#pragma once

#include <atomic>
#include <cstdint>

namespace ox {

/// What the control reader and the input receiver tell the frame loop. Every field is an atomic of
/// its own; nothing is read together with anything else.
struct SessionSignals {
    std::atomic<bool> end_requested{false};       ///< the launcher asked to end
    std::atomic<bool> keyframe_requested{false};  ///< a keyframe is wanted
    std::atomic<uint32_t> pending_bitrate{0};     ///< kbit/s to apply; 0: none
    std::atomic<float> loss_pct{0};
    std::atomic<float> rtt_ms{0};
    std::atomic<float> decoded_fps{0};
    std::atomic<int64_t> last_media_feedback_us{0};  ///< steady clock; 0: none yet
    std::atomic<int64_t> last_keyframe_sent_us{0};   ///< steady clock; 0: none yet
    std::atomic<uint64_t> answered_in_flight{0};     ///< requests a keyframe under way answers
};

/// Handles a request for a keyframe: asks the frame loop for one, unless one left so recently that
/// the launcher cannot have seen it when it asked. Any thread.
void request_keyframe(SessionSignals& signals, int64_t now_us);

}  // namespace ox
