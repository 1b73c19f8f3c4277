#pragma once

#include <optional>

#include "base/clock.h"

namespace ox::portal {

/// Decides whether a share has ended, and whether the owner stopped it. The portal closes its
/// session at "Stop" as well as for a rotated monitor, perhaps not when a program behind it dies.
/// So an end together with such a disturbance, or whose session still exists, is a loss; every
/// other is the owner's. Pure.
class ShareWatch {
  public:
    enum class Verdict {
        Runs,
        Paused,   ///< the stream has stopped, perhaps for a new format
        Closing,  ///< the portal has closed the session
        Lost,     ///< for good, and not by the owner
        Stopped,  ///< for good, by the owner
    };
    using Time = SteadyClock::time_point;

    /// The stream's state, at every poll.
    void stream_state(bool running, Time now);
    void session_closed(Time now);
    /// A monitor has changed, or a program that the share depends on has ended.
    void disturbance(Time now) { disturbed_at_ = now; }
    /// The portal, when queried, still had the session.
    void session_confirmed() { confirmed_ = true; }

    /// Whether to query the portal for the session: true once per interruption.
    bool should_query_session(Time now);
    Verdict verdict(Time now);

  private:
    [[nodiscard]] bool was_disturbed() const;

    std::optional<Time> interrupted_at_;
    std::optional<Time> disturbed_at_;
    bool closed_ = false;
    bool confirmed_ = false;
    bool queried_ = false;
    Verdict final_ = Verdict::Runs;  ///< Lost or Stopped once that is decided
};

}  // namespace ox::portal
