#pragma once

#include <chrono>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Absolute deadlines of the frame loop, one per frame interval, computed from a base time so that
/// rounding does not accumulate. Pure.
class FramePacer {
  public:
    /// `fps` is at least 1. The first deadline is one interval after `now`.
    FramePacer(uint32_t fps, SteadyClock::time_point now) : fps_(fps), base_(now) {}

    /// Advances to the next frame and returns its deadline.
    SteadyClock::time_point next_deadline();
    /// The deadline of the next frame, without advancing.
    [[nodiscard]] SteadyClock::time_point upcoming() const { return deadline(frames_ + 1); }

    /// Moves all future deadlines.
    void shift(std::chrono::nanoseconds by) { base_ += by; }

    /// The wait for the deadline ended at `now`. More than four intervals late, the schedule
    /// restarts at `now` instead of catching up in a burst.
    void arrived(SteadyClock::time_point now);

    /// Restarts the schedule at `now`.
    void reset(SteadyClock::time_point now);

  private:
    [[nodiscard]] SteadyClock::time_point deadline(int64_t frame) const;

    uint32_t fps_;
    SteadyClock::time_point base_;
    int64_t frames_ = 0;  ///< deadlines returned since `base_`
};

}  // namespace ox
