#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/clock.h"

namespace ox {

/// How long after a keyframe requests count as answered by it: the round trip plus 150 ms, or 250
/// ms for a round trip outside of 0..1000 ms.
std::chrono::microseconds keyframe_in_flight_window(float rtt_ms);

/// Serves the first request for a keyframe at once, later ones once a second. Any thread may call
/// `request` and `answered_in_flight`, all else is the frame loop's.
class KeyframeRequests {
  public:
    using TimePoint = SteadyClock::time_point;

    /// Dropped (and counted) when the launcher cannot have seen the last keyframe yet.
    void request(TimePoint now, float rtt_ms);

    /// Once per frame interval: forces a keyframe for a pending request when the rate limit allows.
    void apply(TimePoint now);
    /// The next frame must be a keyframe, whatever the rate limit. Not counted.
    void force_now() { force_ = true; }
    bool take_forced() { return std::exchange(force_, false); }
    /// A keyframe left the encoder, for whatever reason: it answers every pending request.
    void sent(TimePoint now);

    /// Keyframes forced for requests.
    [[nodiscard]] uint64_t forced() const { return forced_; }
    /// Requests dropped because of a keyframe in flight.
    [[nodiscard]] uint64_t answered_in_flight() const { return answered_in_flight_; }

  private:
    std::atomic<bool> requested_{false};
    std::atomic<TimePoint> last_sent_{TimePoint{}};  ///< zero: none yet
    std::atomic<uint64_t> answered_in_flight_{0};

    // The frame loop's own.
    bool pending_ = false;
    bool force_ = false;
    uint64_t forced_ = 0;
    std::optional<TimePoint> last_forced_;
};

}  // namespace ox
