#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "base/clock.h"

namespace ox {

/// When a backend's picture changed: noted by one thread, taken by another.
class ChangeTimes {
  public:
    void note(SteadyClock::time_point at) {
        const std::lock_guard lock(mutex_);
        times_[count_++ % times_.size()] = at;
    }

    /// How many were ever noted.
    [[nodiscard]] uint64_t count() const {
        const std::lock_guard lock(mutex_);
        return count_;
    }

    /// Calls `sink` with each time noted since the last call, in order; of more than 16 with the
    /// last ones.
    template <typename Sink>
    void take(Sink&& sink) {
        std::array<SteadyClock::time_point, kKept> times;
        size_t fresh = 0;
        {
            const std::lock_guard lock(mutex_);
            fresh = static_cast<size_t>(std::min<uint64_t>(count_ - taken_, kKept));
            for (size_t i = 0; i < fresh; ++i)
                times[i] = times_[(count_ - fresh + i) % kKept];
            taken_ = count_;
        }
        for (size_t i = 0; i < fresh; ++i)
            sink(times[i]);
    }

  private:
    static constexpr size_t kKept = 16;

    mutable std::mutex mutex_;  ///< guards everything below
    std::array<SteadyClock::time_point, kKept> times_{};
    uint64_t count_ = 0;
    uint64_t taken_ = 0;
};

}  // namespace ox
