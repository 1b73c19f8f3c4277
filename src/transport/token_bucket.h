#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Paces a sender: fills at a rate and holds 16 ms of it. Pure; the caller sleeps.
class TokenBucket {
  public:
    struct Decision {
        std::chrono::microseconds sleep{0};
        bool overrun = false;  ///< the datagram is sent ahead of its tokens
    };

    /// Starts full. `bytes_per_second` is above 0.
    TokenBucket(uint64_t bytes_per_second, SteadyClock::time_point now);

    /// Takes the tokens of one datagram of `length` bytes. The bucket never goes negative.
    Decision take(size_t length, SteadyClock::time_point now);

  private:
    double rate_;    ///< bytes per second
    double tokens_;  ///< bytes
    SteadyClock::time_point last_refill_;
};

}  // namespace ox
