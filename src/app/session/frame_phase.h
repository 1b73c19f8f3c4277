#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Finds the phase of the frame deadlines with the shortest wait from a picture's change to its
/// capture; without it every picture may wait for one frame interval. Pure.
class FramePhase {
  public:
    explicit FramePhase(uint32_t fps);

    /// The picture changed at this time. In ascending order.
    void changed(SteadyClock::time_point at);

    /// How far to move the schedule: at most 1/128 of an interval, so that the rate stays within
    /// 0.8 %. Zero with too few changes in the last second, faster drift, or no better phase.
    [[nodiscard]] std::chrono::nanoseconds step(SteadyClock::time_point deadline);

  private:
    static constexpr size_t kKept = 32;

    /// Fills `waits_` with the time from each recent change to the next deadline of this phase.
    size_t measure_waits(SteadyClock::time_point deadline);
    /// Whether the changes drift against the deadlines faster than the deadlines may follow.
    [[nodiscard]] bool drifts_too_fast(size_t changes) const;
    /// By how much to move the deadlines for the shortest mean wait, in ns.
    [[nodiscard]] int64_t best_move(size_t changes) const;
    /// Sum of the waits if all deadlines came earlier by `earlier`, which is within an interval.
    [[nodiscard]] int64_t total_wait(size_t changes, int64_t earlier) const;

    int64_t interval_;                                      // ns
    std::array<SteadyClock::time_point, kKept> changes_{};  // a ring
    uint64_t count_ = 0;                                    // changes so far
    int64_t span_ = 0;                                      // ns from the first to the last change
    std::array<int64_t, kKept> waits_{};                    // ns, each within [0, interval)
};

}  // namespace ox
