#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

#include "app/session/keyframe_requests.h"
#include "base/mutex.h"
#include "control/control_message.h"
#include "input/input_packet.h"

namespace ox {

/// The launcher's view of its reception, by feedback packets and the control channel. Any thread
/// may call but for `keyframes`, which has rules of its own.
class FeedbackHandler {
  public:
    using TimePoint = SteadyClock::time_point;

    struct RfiCounters {
        uint64_t requests = 0;       ///< requests that named lost frames, or were all zero
        uint64_t valid = 0;          ///< those that passed every rule
        uint64_t idr_fallbacks = 0;  ///< valid ones answered by a keyframe instead
    };

    void handle(const InputPacket& packet, TimePoint now);
    /// Ignored for 2 s after media feedback, which has the same figures more recently.
    void handle(const ClientStats& stats, TimePoint now);
    void request_keyframe(TimePoint now) { keyframes_.request(now, rtt_ms_); }

    /// 0 or less: not reported yet.
    [[nodiscard]] float rtt_ms() const { return rtt_ms_; }
    [[nodiscard]] float loss_pct() const { return loss_pct_; }
    [[nodiscard]] RfiCounters rfi_counters() const;
    KeyframeRequests& keyframes() { return keyframes_; }
    [[nodiscard]] const KeyframeRequests& keyframes() const { return keyframes_; }

  private:
    void handle_media_feedback(const InputPacket& packet, TimePoint now);
    void handle_rfi_request(const InputPacket& packet, TimePoint now);

    KeyframeRequests keyframes_;
    std::atomic<float> rtt_ms_{0};
    std::atomic<float> loss_pct_{0};
    std::atomic<TimePoint> last_media_feedback_{TimePoint{}};  ///< zero: none yet
    mutable Mutex rfi_mutex_;
    RfiCounters rfi_ OX_GUARDED_BY(rfi_mutex_);
    std::optional<TimePoint> last_valid_rfi_ OX_GUARDED_BY(rfi_mutex_);
};

}  // namespace ox
