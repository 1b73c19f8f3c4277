#include "app/session/keyframe_requests.h"

namespace ox {

std::chrono::microseconds keyframe_in_flight_window(float rtt_ms) {
    using std::chrono::microseconds;
    const bool known = rtt_ms > 0.0F && rtt_ms < 1000.0F;
    return microseconds(known ? static_cast<int64_t>(rtt_ms * 1000.0F) + 150'000 : 250'000);
}

void KeyframeRequests::request(TimePoint now, float rtt_ms) {
    const TimePoint last_sent = last_sent_;
    if (last_sent != TimePoint{} && now - last_sent < keyframe_in_flight_window(rtt_ms)) {
        ++answered_in_flight_;
    } else {
        requested_ = true;
    }
}

void KeyframeRequests::apply(TimePoint now) {
    constexpr std::chrono::nanoseconds kMinimumGap{999'999'999};
    pending_ = requested_.exchange(false) || pending_;
    if (!pending_ || (last_forced_ && now - *last_forced_ <= kMinimumGap)) return;
    pending_ = false;
    last_forced_ = now;
    ++forced_;
    force_ = true;
}

void KeyframeRequests::sent(TimePoint now) {
    requested_ = false;
    pending_ = false;
    last_sent_ = now;
}

}  // namespace ox
