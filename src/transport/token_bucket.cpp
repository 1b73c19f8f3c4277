#include "transport/token_bucket.h"

#include <algorithm>

namespace ox {
namespace {

constexpr double kBurstMs = 16.0;
// A shorter sleep is not worth its overhead; a longer one would delay the sending thread.
constexpr int64_t kMinSleepUs = 50;
constexpr double kMaxSleepUs = 1000.0;

double burst_bytes(double rate) {
    return rate * kBurstMs / 1e3;
}

}  // namespace

TokenBucket::TokenBucket(uint64_t bytes_per_second, SteadyClock::time_point now)
    : rate_(static_cast<double>(bytes_per_second)),
      tokens_(burst_bytes(rate_)),
      last_refill_(now) {}

TokenBucket::Decision TokenBucket::take(size_t length, SteadyClock::time_point now) {
    using std::chrono::nanoseconds;
    const auto elapsed_ns = static_cast<double>(nanoseconds(now - last_refill_).count());
    tokens_ = std::min(burst_bytes(rate_), tokens_ + elapsed_ns * rate_ / 1e9);
    // Deliberately the time before any sleep: the next refill counts the slept interval a second
    // time, which lets late wake-ups catch up and is bounded by the bucket's size.
    last_refill_ = now;

    Decision decision;
    const auto wanted = static_cast<double>(length);
    if (wanted > tokens_) {
        const auto wait_us =
            static_cast<int64_t>(std::min((wanted - tokens_) * 1e6 / rate_, kMaxSleepUs));
        if (wait_us > kMinSleepUs) {
            decision.sleep = std::chrono::microseconds(wait_us);
            tokens_ += static_cast<double>(wait_us) * rate_ / 1e6;
            decision.overrun = wanted > tokens_;
        } else {
            decision.overrun = true;
        }
    }
    tokens_ = std::max(0.0, tokens_ - wanted);
    return decision;
}

}  // namespace ox
