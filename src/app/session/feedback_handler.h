#pragma once

#include <cstdint>
#include <mutex>

#include "app/session/session_signals.h"
#include "input/input_packet.h"

namespace ox {

/// Turns the launcher's feedback packets into session signals. Called on the input thread; the
/// counters may be read from any thread.
class FeedbackHandler {
  public:
    explicit FeedbackHandler(SessionSignals& signals) : signals_(signals) {}

    struct RfiCounters {
        uint64_t requests = 0;       ///< requests that named lost frames, or were all zero
        uint64_t valid = 0;          ///< those that passed every rule
        uint64_t idr_fallbacks = 0;  ///< those that ended in a keyframe request for want of better
    };

    void handle(const InputPacket& packet, int64_t now_us);
    [[nodiscard]] RfiCounters rfi_counters() const;

  private:
    void handle_media_feedback(const InputPacket& packet, int64_t now_us);
    void handle_rfi_request(const InputPacket& packet, int64_t now_us);

    SessionSignals& signals_;
    mutable std::mutex rfi_mutex_;
    RfiCounters rfi_;                ///< guarded by rfi_mutex_
    int64_t last_valid_ask_us_ = 0;  ///< guarded by rfi_mutex_; 0: none yet
};

}  // namespace ox
