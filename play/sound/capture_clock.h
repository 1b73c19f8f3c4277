#pragma once

#include <cstdint>
#include <optional>

#include "launcher/client/audio_receiver.h"

namespace ox::play {

/// Estimates when a frame of sound was recorded. Frames are recorded without a gap and sent at that
/// moment or later, so the least late ones of the last seconds tell. Unlike launcher::AudioClock it
/// follows the drift between the agent's sound card and its clock. Pure.
class CaptureClock {
  public:
    /// End of the decoded frame, in us of the agent's steady clock; nothing until a frame with a
    /// time arrived.
    std::optional<uint64_t> end_us(const launcher::AudioFrame& frame);

  private:
    std::optional<uint32_t> sequence_;  ///< of the last frame
    uint64_t time_ = 0;                 ///< when its recording ended
    int late_frames_ = 0;               ///< in a row, by more than a delayed sender explains
};

}  // namespace ox::play
