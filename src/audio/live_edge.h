#pragma once

#include <chrono>
#include <optional>

#include "base/clock.h"

namespace ox {

/// Tells sound that is late from sound that is live. When the recorder's queue has run dry and the
/// next sound is waited for, the reader is at the live edge. How far a buffer lies behind follows
/// from the time that has passed since the queue was last seen dry and the sound that was read
/// since: a reader that is held up while it waits looks like one that waits, but for that.
/// Pure; one thread.
class LiveEdge {
  public:
    /// One buffer of `length` has been read by `now`. `dry`: when the queue was last seen without
    /// anything to read before the buffer was whole, if at all. False: the buffer is more than 50
    /// ms late and is to be dropped.
    bool keep(std::chrono::microseconds length, std::optional<SteadyClock::time_point> dry,
              SteadyClock::time_point now);

    /// The recording starts afresh.
    void reset() { *this = {}; }

  private:
    SteadyClock::time_point edge_{};  ///< when the queue was last dry
    std::chrono::microseconds read_since_{0};
    bool known_ = false;
    bool dropping_ = false;
};

}  // namespace ox
