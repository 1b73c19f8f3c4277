#include "app/session/keyframe_policy.h"

#include "app/session/session_signals.h"

namespace ox {

int64_t keyframe_in_flight_window_us(float rtt_ms) {
    if (rtt_ms > 0.0F && rtt_ms < 1000.0F) return static_cast<int64_t>(rtt_ms * 1000.0F) + 150'000;
    return 250'000;
}

bool keyframe_in_flight(int64_t last_keyframe_us, int64_t now_us, float rtt_ms) {
    return last_keyframe_us != 0 &&
           now_us - last_keyframe_us < keyframe_in_flight_window_us(rtt_ms);
}

bool KeyframePolicy::should_force(bool requested, SteadyClock::time_point now) {
    constexpr std::chrono::nanoseconds kMinimumGap{999'999'999};
    pending_ = pending_ || requested;
    if (!pending_) return false;
    if (forced_ > 0 && now - last_forced_ <= kMinimumGap) return false;
    pending_ = false;
    last_forced_ = now;
    ++forced_;
    return true;
}

void request_keyframe(SessionSignals& signals, int64_t now_us) {
    if (keyframe_in_flight(signals.last_keyframe_sent_us, now_us, signals.rtt_ms)) {
        ++signals.answered_in_flight;
    } else {
        signals.keyframe_requested = true;
    }
}

}  // namespace ox
