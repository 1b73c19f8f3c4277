#include "audio/live_edge.h"

namespace ox {

bool LiveEdge::keep(std::chrono::microseconds length, std::optional<SteadyClock::time_point> dry,
                    SteadyClock::time_point now) {
    // A recorder that catches up may be slower than its reader for a moment.
    constexpr std::chrono::milliseconds kWaited{1};
    constexpr std::chrono::milliseconds kLate{50};
    if (!known_ || (dry && now - *dry >= kWaited)) {
        known_ = true;
        dropping_ = false;
        edge_ = dry.value_or(now);
        read_since_ = {};
    }
    read_since_ += length;
    // Once late, everything up to the live edge goes: the newest sound is what is to be heard.
    dropping_ = dropping_ || (now - edge_) - read_since_ > kLate;
    return !dropping_;
}

}  // namespace ox
