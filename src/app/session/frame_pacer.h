#pragma once

#include <chrono>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Absolute deadlines of the frame loop, without accumulated rounding. Pure.
class FramePacer {
  public:
    /// `fps` is at least 1. The first deadline is one interval after `now`.
    FramePacer(uint32_t fps, SteadyClock::time_point now) : fps_(fps), base_(now) {}

    SteadyClock::time_point next_deadline();
    [[nodiscard]] SteadyClock::time_point upcoming() const { return deadline(frames_ + 1); }

    void shift(std::chrono::nanoseconds by) { base_ += by; }

    /// The wait ended at `now`. More than four intervals late, the schedule restarts there.
    void arrived(SteadyClock::time_point now);

    void reset(SteadyClock::time_point now);

  private:
    [[nodiscard]] SteadyClock::time_point deadline(int64_t frame) const;

    uint32_t fps_;
    SteadyClock::time_point base_;
    int64_t frames_ = 0;  ///< deadlines returned since `base_`
};

}  // namespace ox
