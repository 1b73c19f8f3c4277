#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <utility>
#include <vector>

namespace ox::test {

/// A bottleneck as a value: token bucket, tail-drop queue, random loss, delay and jitter.
/// Repeatable for one seed.
class ShapedPath {
  public:
    struct Setup {
        std::vector<std::pair<double, double>> steps = {{0, 20'000}};  ///< from second, kbit/s
        double bucket_kbytes = 0;  ///< passes at once after a pause
        double queue_ms = 200;
        double loss = 0;  ///< 0..1
        double delay_ms = 10;
        double jitter_ms = 0;  ///< more delay, uniform per packet
        bool reorders = false;
        uint32_t seed = 1;
    };

    explicit ShapedPath(Setup setup) : setup_(std::move(setup)), random_(setup_.seed) {}

    /// When a datagram sent at `now_us` since the start arrives; none when it is lost. In order of
    /// time.
    std::optional<uint64_t> pass(uint64_t now_us, size_t bytes) {
        if (chance_(random_) < setup_.loss) return std::nullopt;
        const auto now = static_cast<double>(now_us);
        const double us_per_byte = 8000 / kbps_at(now / 1e6);
        const double bucket_us = setup_.bucket_kbytes * 1000 * us_per_byte;
        const double begin = std::max(now, free_us_);
        if (begin - bucket_us > now + setup_.queue_ms * 1000) return std::nullopt;
        free_us_ = begin + static_cast<double>(bytes) * us_per_byte;
        double arrival = std::max(now, free_us_ - bucket_us) +
                         1000 * (setup_.delay_ms + setup_.jitter_ms * chance_(random_));
        if (!setup_.reorders) arrival = latest_us_ = std::max(latest_us_, arrival);
        return static_cast<uint64_t>(arrival);
    }

    [[nodiscard]] double kbps_at(double seconds) const {
        double kbps = setup_.steps.front().second;
        for (const auto& [from, rate] : setup_.steps)
            if (seconds >= from) kbps = rate;
        return kbps;
    }

  private:
    Setup setup_;
    std::mt19937 random_;
    std::uniform_real_distribution<> chance_{0, 1};
    double free_us_ = 0;  ///< when the last accepted byte is through
    double latest_us_ = 0;
};

}  // namespace ox::test
