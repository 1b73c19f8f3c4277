#pragma once

#include <chrono>
#include <optional>

#include "base/clock.h"

namespace ox {

/// Tells late sound from live sound. A reader that waits at an empty pipe is at the live edge; from
/// then on a buffer is late by the time passed minus the sound read. Pure; one thread.
class LiveEdge {
  public:
    /// A buffer of `length` was read by `now`; `empty`: when the pipe was last seen empty before
    /// that. False: it is more than 50 ms late and is to be dropped.
    bool is_live(std::chrono::microseconds length, std::optional<SteadyClock::time_point> empty,
                 SteadyClock::time_point now) {
        // A recorder that catches up may be slower than its reader for a moment.
        constexpr std::chrono::milliseconds kWaited{1};
        constexpr std::chrono::milliseconds kLate{50};
        if (!known_ || (empty && now - *empty >= kWaited)) {
            known_ = true;
            dropping_ = false;
            edge_ = empty.value_or(now);
            read_since_ = {};
        }
        read_since_ += length;
        // Once late, drop everything up to the live edge: the newest sound counts.
        dropping_ = dropping_ || (now - edge_) - read_since_ > kLate;
        return !dropping_;
    }

    /// For a new recording.
    void reset() { *this = {}; }

  private:
    SteadyClock::time_point edge_{};  ///< when the pipe was last empty
    std::chrono::microseconds read_since_{0};
    bool known_ = false;
    bool dropping_ = false;
};

}  // namespace ox
