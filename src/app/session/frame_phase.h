#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Finds the phase of the frame deadlines under which pictures wait least for their capture. The
/// pictures of a screen come with a clock of their own; a schedule that knows nothing of it leaves
/// each of them waiting for up to one frame interval, by chance and for the whole session. Pure.
class FramePhase {
  public:
    /// `fps` is at least 1.
    explicit FramePhase(uint32_t fps);

    /// The picture changed at this time. In ascending order.
    void changed(SteadyClock::time_point at);

    /// How far to move the schedule whose next deadline is `deadline`: at most 1/128 of an interval
    /// either way, so that the rate stays within 0.8 % of the agreed one. Zero where the changes of
    /// the last second are too few to tell, where they drift faster than that, or where the phase
    /// is as good as any.
    [[nodiscard]] std::chrono::nanoseconds step(SteadyClock::time_point deadline);

  private:
    static constexpr size_t kKept = 32;

    /// Puts into `waits_` how long each recent change waits for a deadline of this phase.
    size_t measure_waits(SteadyClock::time_point deadline);
    /// Whether the changes drift against the deadlines faster than the deadlines may follow.
    [[nodiscard]] bool runs_away(size_t changes) const;
    /// By how much to move the deadlines for the shortest mean wait, in ns.
    [[nodiscard]] int64_t best_move(size_t changes) const;
    /// Sum of the waits if all deadlines came earlier by `earlier`, which is within an interval.
    [[nodiscard]] int64_t total_wait(size_t changes, int64_t earlier) const;

    int64_t interval_;                                      // ns
    std::array<SteadyClock::time_point, kKept> changes_{};  // a ring
    uint64_t count_ = 0;                                    // changes so far
    int64_t span_ = 0;                                      // ns from the first to the last of
    std::array<int64_t, kKept> waits_{};                    // ns, each within [0, interval)
};

}  // namespace ox
