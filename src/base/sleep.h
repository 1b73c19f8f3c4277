#pragma once

#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>

#include "base/clock.h"

namespace ox {

/// Sleeps until `deadline` on the steady clock, without being interrupted by signals.
inline void sleep_until_steady(SteadyClock::time_point deadline) noexcept {
    const auto since_epoch = deadline.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since_epoch);
    const timespec at{.tv_sec = seconds.count(),
                      .tv_nsec = std::chrono::nanoseconds(since_epoch - seconds).count()};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
    }
}

/// Sleeps. False once `stop()`, polled every 50 ms, has returned true.
template <typename Stop>
bool sleep_until_or(SteadyClock::time_point deadline, Stop&& stop) {
    constexpr std::chrono::milliseconds kPollInterval{50};
    for (;;) {
        if (stop()) return false;
        const auto now = SteadyClock::now();
        if (now >= deadline) return true;
        sleep_until_steady(std::min(deadline, now + kPollInterval));
    }
}

/// For the calling thread: the default slack of 50 us is more than a gap between paced datagrams.
inline void use_minimal_timer_slack() noexcept {
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
}

}  // namespace ox
