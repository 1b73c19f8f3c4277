#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "base/clock.h"

namespace ox {

/// Decides when a kept picture of a screen has to be fetched anew, where the screen announces its
/// changes. Some graphics drivers announce nothing while a game shows whole pictures by flipping;
/// so a picture is fetched now and then all the same, and a screen that was found out is not
/// trusted again. Pure.
class PictureFreshness {
  public:
    static constexpr std::chrono::milliseconds kCheckPeriod{100};

    enum class Need {
        Nothing,  ///< the kept picture is good
        Fetch,
        Check,  ///< fetch and tell, by `found_change`, whether it differs from the kept one
    };

    /// `announced` is the number of changes announced so far.
    Need next(uint64_t announced, SteadyClock::time_point now);

    /// The picture was fetched; `announced` is the number from before.
    void fetched(uint64_t announced, SteadyClock::time_point now);

    /// There is no kept picture any more.
    void forget() { seen_.reset(); }

    /// A check found a change. Its announcement may still be under way; if none comes until the
    /// next check would be due, the screen has lost its trust.
    void found_change(SteadyClock::time_point now);

    [[nodiscard]] bool trusted() const { return trusted_; }

  private:
    bool trusted_ = true;
    std::optional<uint64_t> seen_;  // announced when the kept picture was fetched; none: no picture
    SteadyClock::time_point fetched_at_{};
    std::optional<SteadyClock::time_point> suspected_at_;
    uint64_t suspected_count_ = 0;
};

}  // namespace ox
