#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace ox::bench {

/// The most bytes that came within any millisecond: what the queue of a narrow link has to take.
class BurstMeter {
  public:
    void add(int64_t time_ns, size_t bytes) {
        constexpr int64_t kWindowNs = 1'000'000;
        recent_.push_back({time_ns, bytes});
        in_window_ += bytes;
        while (recent_.front().time_ns <= time_ns - kWindowNs) {
            in_window_ -= recent_.front().bytes;
            recent_.pop_front();
        }
        largest_ = std::max(largest_, in_window_);
    }
    [[nodiscard]] size_t largest() const { return largest_; }

  private:
    struct Arrival {
        int64_t time_ns;
        size_t bytes;
    };
    std::deque<Arrival> recent_;
    size_t in_window_ = 0;
    size_t largest_ = 0;
};

}  // namespace ox::bench
