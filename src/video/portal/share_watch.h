#pragma once

#include <optional>

#include "base/clock.h"

namespace ox::portal {

/// Decides, from what is seen of a running screen share, whether it goes on, and if not, whether it
/// was the PC's owner who stopped it. Nothing that a portal says tells that: it closes its session
/// at the press of "Stop" as well as for a monitor that is turned, and may close none when a
/// program behind it dies. So a share whose end comes together with such a disturbance was lost,
/// and so was one that the portal still has a session of; every other end was the owner's. Pure:
/// the time is passed in.
class ShareWatch {
  public:
    enum class Verdict {
        Runs,
        Paused,   ///< the stream has stopped, which it also does for a new format
        Closing,  ///< the portal has closed the session
        Lost,     ///< for good, and not by the owner
        Stopped,  ///< for good, by the owner
    };
    using Time = SteadyClock::time_point;

    /// The stream runs or does not, as often as one looks.
    void stream(bool runs, Time now);
    /// The portal has closed the session.
    void closed(Time now);
    /// A monitor has changed, or a program that the share depends on has ended.
    void disturbed(Time now) { disturbed_ = now; }
    /// The portal has been asked, and still has the session.
    void still_open() { still_open_ = true; }

    /// Whether the portal should be asked for the session: true once per interruption.
    bool wants_to_ask(Time now);
    Verdict verdict(Time now);

  private:
    [[nodiscard]] bool was_disturbed() const;

    std::optional<Time> since_;  ///< begin of the interruption
    std::optional<Time> disturbed_;
    bool closed_ = false;
    bool still_open_ = false;
    bool asked_ = false;
    Verdict final_ = Verdict::Runs;  ///< Lost or Stopped once that is decided
};

}  // namespace ox::portal
