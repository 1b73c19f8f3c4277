#pragma once

#include <cstdint>
#include <optional>

#include "launcher/feedback_packets.h"

namespace ox::launcher {

/// Keeps account of which frames the decoder misses since its last good one, and makes requests of
/// it that an agent accepts. Pure; used by one thread.
class LostRange {
  public:
    /// A frame that can be decoded went on: nothing is missing any more.
    void on_intact(uint32_t frame_id) {
        last_good_ = frame_id;
        newest_lost_.reset();
        attempts_ = 0;
    }
    /// Frames up to this one are lost.
    void on_lost(uint32_t frame_id) { newest_lost_ = frame_id; }
    /// The loss cannot be told in frame numbers.
    void on_unknown_loss() { last_good_.reset(); }

    /// The next request about the present loss. Nothing when a plain keyframe request is the thing
    /// to send: no good frame to refer to, too much lost, or asked three times.
    std::optional<LostFrames> next_request() {
        constexpr uint32_t kMaxFrames = 255;
        constexpr uint8_t kMaxAttempts = 3;
        if (!last_good_ || !newest_lost_ || attempts_ == kMaxAttempts) return std::nullopt;
        const uint32_t first = *last_good_ + 1;
        // Frame 0 and the wrap of the numbers are nothing that can be referred to.
        if (*last_good_ == 0 || *newest_lost_ < first || *newest_lost_ - first >= kMaxFrames)
            return std::nullopt;
        return LostFrames{.last_delivered = *last_good_,
                          .first_missing = first,
                          .last_missing = *newest_lost_,
                          .attempt = attempts_++};
    }

  private:
    std::optional<uint32_t> last_good_;
    std::optional<uint32_t> newest_lost_;
    uint8_t attempts_ = 0;
};

}  // namespace ox::launcher
