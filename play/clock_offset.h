#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>

namespace ox::play {

/// Estimates how old a picture is although the PC's clock is another: the fastest picture so far
/// has taken half a round trip. Pure.
class ClockOffset {
  public:
    /// `timestamp` is the PC's, `arrived` one's own clock, both in us.
    void add(uint64_t timestamp, uint64_t arrived) {
        if (timestamp == 0) return;
        const auto offset = static_cast<int64_t>(arrived - timestamp);
        least_ = least_ ? std::min(offset, *least_ + kDriftUs) : offset;
    }

    /// In ms; nothing before the first picture.
    [[nodiscard]] std::optional<double> age_ms(uint64_t timestamp, uint64_t now_us,
                                               double rtt_ms) const {
        if (!least_ || timestamp == 0) return std::nullopt;
        const auto late = static_cast<int64_t>(now_us - timestamp) - *least_;
        return static_cast<double>(late) / 1e3 + rtt_ms / 2;
    }

  private:
    static constexpr int64_t kDriftUs = 2;  ///< per picture: 120 ppm at 60 a second

    std::optional<int64_t> least_;
};

}  // namespace ox::play
