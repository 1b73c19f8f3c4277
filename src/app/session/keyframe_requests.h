#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/clock.h"

namespace ox {

/// How long after a keyframe a request is taken to be answered by it: the round trip plus 150 ms,
/// or 250 ms while the round trip is unknown (not within 0..1000 ms).
std::chrono::microseconds keyframe_in_flight_window(float rtt_ms);

/// Decides when a frame must be a keyframe. The first request is served at once, later ones at most
/// once a second; one inside that second waits for its end. Any thread may call `request` and
/// `answered_in_flight`, everything else belongs to the frame loop.
class KeyframeRequests {
  public:
    using TimePoint = SteadyClock::time_point;

    /// The launcher wants a keyframe. Dropped (and counted) when one was sent so recently that the
    /// launcher cannot have seen it yet.
    void request(TimePoint now, float rtt_ms);

    /// Once per frame interval: forces a keyframe for a pending request when the rate limit allows.
    void apply(TimePoint now);
    /// The next frame must be a keyframe, whatever the rate limit. Not counted.
    void force_now() { force_ = true; }
    /// Whether the frame about to be encoded must be a keyframe.
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
