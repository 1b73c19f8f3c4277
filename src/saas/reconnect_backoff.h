#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace ox {

/// Close code of a backend that saw another agent connect with the same token.
inline constexpr uint16_t kCloseReplaced = 4009;

/// The wait before the next attempt: doubles after failures, reset by a handshake. Pure.
class ReconnectBackoff {
  public:
    using Duration = std::chrono::milliseconds;

    struct Limits {
        Duration first{1000};
        Duration longest{30'000};
        /// After `kCloseReplaced`: two agents that reconnect at once would replace each other.
        Duration replaced{30'000};
    };

    explicit ReconnectBackoff(Limits limits) : limits_(limits), current_(limits.first) {}

    /// `handshaken`: the attempt that has ended got through its handshake.
    Duration next_wait(bool handshaken, uint16_t close_code) {
        if (handshaken) current_ = limits_.first;
        const Duration wait = close_code == kCloseReplaced ? limits_.replaced : current_;
        current_ = std::min(2 * current_, limits_.longest);
        return wait;
    }

  private:
    Limits limits_;
    Duration current_;
};

}  // namespace ox
