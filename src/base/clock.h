#pragma once

#include <chrono>
#include <cstdint>

namespace ox {

using SteadyClock = std::chrono::steady_clock;

/// Microseconds of the steady clock (CLOCK_MONOTONIC, the same in every process of this machine).
[[nodiscard]] inline uint64_t steady_now_us() noexcept {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now().time_since_epoch())
            .count());
}

[[nodiscard]] inline int64_t system_now_s() noexcept {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace ox
