#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace ox {

/// Arithmetic of the sender's pacing: a bucket of bytes that fills at a rate and holds 16 ms of it.
/// Pure; the time is passed in and the caller does the sleeping.
class TokenBucket {
  public:
    /// What the caller is to do before the datagram goes out.
    struct Decision {
        std::chrono::microseconds sleep{0};
        bool overrun = false;  ///< the datagram goes out ahead of its tokens
    };

    /// Starts full. `bytes_per_second` is above 0.
    TokenBucket(uint64_t bytes_per_second, SteadyClock::time_point now);

    /// Books one datagram of `length` bytes. Never refuses; the bucket never goes negative.
    Decision take(size_t length, SteadyClock::time_point now);

  private:
    double rate_;    ///< bytes per second
    double tokens_;  ///< bytes
    SteadyClock::time_point last_refill_;
};

}  // namespace ox
