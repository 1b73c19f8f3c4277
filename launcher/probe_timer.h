#pragma once

#include <cstdint>

namespace ox::launcher {

/// When to send hole-punch probes for one media stream: ten times a second until media comes, and
/// again when it pauses for a second, because the way may have closed. Pure; used by one thread.
class ProbeTimer {
  public:
    /// `eager_us` after the first question, a stream that brings nothing is asked for once a second
    /// only; 0 = never less often.
    explicit ProbeTimer(uint64_t eager_us = 0) : eager_us_(eager_us) {}

    /// Whether a probe is due; counts as sent then. `last_media_us` is 0 before the first packet.
    bool due(uint64_t now_us, uint64_t last_media_us) {
        if (first_us_ == 0) first_us_ = now_us;
        const bool flowing = last_media_us != 0 && now_us < last_media_us + kSilenceUs;
        if (now_us < next_us_ || flowing) return false;
        const bool eager = eager_us_ == 0 || now_us < first_us_ + eager_us_;
        next_us_ = now_us + (eager ? kPeriodUs : kPatientPeriodUs);
        return true;
    }

  private:
    static constexpr uint64_t kPeriodUs = 100'000;
    static constexpr uint64_t kPatientPeriodUs = 1'000'000;
    static constexpr uint64_t kSilenceUs = 1'000'000;

    uint64_t eager_us_;
    uint64_t first_us_ = 0;
    uint64_t next_us_ = 0;
};

}  // namespace ox::launcher
