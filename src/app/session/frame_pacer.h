#pragma once

#include <chrono>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Absolute deadlines of the frame loop, one per frame interval. Deadlines are counted from a base,
/// so that an interval which is no whole number of nanoseconds does not drift. Pure.
class FramePacer {
  public:
    /// `fps` is at least 1. The first deadline is one interval after `now`.
    FramePacer(uint32_t fps, SteadyClock::time_point now) : fps_(fps), base_(now) {}

    /// Moves to the next frame and returns when it is due.
    SteadyClock::time_point next_deadline();
    /// When the next frame will be due; stays with this one.
    [[nodiscard]] SteadyClock::time_point upcoming() const { return deadline(frames_ + 1); }

    /// Moves all deadlines to come.
    void shift(std::chrono::nanoseconds by) { base_ += by; }

    /// Tells when the wait for the deadline was over. More than four intervals late, the schedule
    /// starts afresh at `now` instead of catching up in a burst.
    void arrived(SteadyClock::time_point now);

    /// Starts the schedule afresh at `now`.
    void reset(SteadyClock::time_point now);

  private:
    [[nodiscard]] SteadyClock::time_point deadline(int64_t frame) const;

    uint32_t fps_;
    SteadyClock::time_point base_;
    int64_t frames_ = 0;  ///< deadlines given out since `base_`
};

}  // namespace ox
