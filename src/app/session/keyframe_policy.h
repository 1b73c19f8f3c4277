#pragma once

#include <chrono>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// How long after a keyframe a request is taken to be answered by it: the round trip plus 150 ms,
/// or 250 ms while the round trip is unknown (not within 0..1000 ms).
int64_t keyframe_in_flight_window_us(float rtt_ms);

/// True when a keyframe sent at `last_keyframe_us` (0: none) answers a request made at `now_us`.
bool keyframe_in_flight(int64_t last_keyframe_us, int64_t now_us, float rtt_ms);

/// Decides when a requested keyframe is forced: the first at once, later ones at most once a
/// second. A request inside that second waits for its end. Used by the frame loop alone.
class KeyframePolicy {
  public:
    /// One pass of the frame loop; `requested` is a new request. True: force a keyframe now.
    bool should_force(bool requested, SteadyClock::time_point now);

    /// A keyframe left the encoder, for whatever reason: nothing is pending any more.
    void keyframe_sent() { pending_ = false; }

    [[nodiscard]] uint64_t forced() const { return forced_; }

  private:
    bool pending_ = false;
    uint64_t forced_ = 0;
    SteadyClock::time_point last_forced_{};
};

}  // namespace ox
