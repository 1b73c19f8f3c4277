#pragma once

#include <chrono>

#include "base/clock.h"

namespace ox {

/// Tells sound that is late from sound that is live. While buffers have to be waited for, the
/// reader is at the live edge. After a stall they come without a wait, and how far they lie behind
/// follows from the time that has passed since the live edge and the sound that was read since.
/// Pure; one thread.
class LiveEdge {
  public:
    /// One buffer of `length` was read at `now` after a wait of `waited`. False: it is more than
    /// 50 ms late and is to be dropped.
    bool keep(std::chrono::microseconds length, std::chrono::microseconds waited,
              SteadyClock::time_point now);

    /// The recording starts afresh.
    void reset() { *this = {}; }

  private:
    SteadyClock::time_point edge_{};  ///< when the queue was last empty
    std::chrono::microseconds read_since_{0};
    bool known_ = false;
    bool dropping_ = false;
};

}  // namespace ox
