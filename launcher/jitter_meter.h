#pragma once

#include <cmath>
#include <cstdint>

namespace ox::launcher {

/// Interarrival jitter of frames after RFC 3550 section 6.4.1: a running mean of how much the
/// spacing of arrivals differs from the spacing of captures. The two clocks need not agree.
class JitterMeter {
  public:
    /// One frame: capture time and arrival, each in microseconds of its own clock.
    void add(uint64_t captured_us, uint64_t arrived_us) {
        const uint64_t transit = arrived_us - captured_us;  // modulo 2^64, as the clocks differ
        if (has_previous_) {
            const auto change = static_cast<int64_t>(transit - previous_);
            jitter_us_ += (std::abs(static_cast<double>(change)) - jitter_us_) / 16.0;
        }
        previous_ = transit;
        has_previous_ = true;
    }

    [[nodiscard]] double jitter_ms() const { return jitter_us_ / 1000.0; }

  private:
    bool has_previous_ = false;
    uint64_t previous_ = 0;
    double jitter_us_ = 0;
};

}  // namespace ox::launcher
