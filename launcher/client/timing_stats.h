#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace ox::launcher {

/// Durations in microseconds in fixed memory: buckets at most 1/128 of their value wide, exact
/// below 256 us. Values above `kMaxUs` count as that.
class LatencyHistogram {
  public:
    static constexpr uint64_t kMaxUs = (uint64_t{1} << 32) - 1;

    void add(uint64_t us) {
        us = us < kMaxUs ? us : kMaxUs;
        ++buckets_[bucket_of(us)];
        sum_ += us;
        min_ = samples_ == 0 || us < min_ ? us : min_;
        max_ = us > max_ ? us : max_;
        ++samples_;
    }

    [[nodiscard]] uint64_t samples() const { return samples_; }
    [[nodiscard]] uint64_t min_us() const { return min_; }
    [[nodiscard]] uint64_t max_us() const { return max_; }
    /// 0 without samples.
    [[nodiscard]] double mean_us() const {
        return samples_ == 0 ? 0.0 : static_cast<double>(sum_) / static_cast<double>(samples_);
    }

    /// The duration that `percent` of all samples do not exceed, rounded up to its bucket's edge; 0
    /// without samples.
    [[nodiscard]] uint64_t percentile_us(double percent) const {
        const double wanted = percent / 100.0 * static_cast<double>(samples_);
        uint64_t seen = 0;
        for (size_t i = 0; i < buckets_.size(); ++i) {
            seen += buckets_[i];
            if (seen > 0 && static_cast<double>(seen) >= wanted)
                return upper_edge(i) < max_ ? upper_edge(i) : max_;
        }
        return max_;
    }

  private:
    // Buckets 0..255 are single values; then 128 buckets for each further power of two.
    static constexpr size_t kBuckets = 256 + 24 * 128;

    static size_t bucket_of(uint64_t us) {
        if (us < 256) return us;
        const auto shift = static_cast<size_t>(std::bit_width(us)) - 8;
        return 128 * (shift + 1) + ((us >> shift) & 127);
    }
    static uint64_t upper_edge(size_t bucket) {
        if (bucket < 256) return bucket;
        const size_t shift = bucket / 128 - 1;
        return ((uint64_t{128 + bucket % 128} + 1) << shift) - 1;
    }

    std::array<uint64_t, kBuckets> buckets_{};
    uint64_t samples_ = 0;
    uint64_t sum_ = 0;
    uint64_t min_ = 0;
    uint64_t max_ = 0;
};

/// Interarrival jitter of frames (RFC 3550 section 6.4.1). The two clocks need not agree.
class JitterMeter {
  public:
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
