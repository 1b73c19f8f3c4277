#include "audio/live_edge.h"

namespace ox {

bool LiveEdge::keep(std::chrono::microseconds length, std::chrono::microseconds waited,
                    SteadyClock::time_point now) {
    constexpr std::chrono::microseconds kWaited{1000};
    constexpr std::chrono::milliseconds kLate{50};
    if (!known_ || waited >= kWaited) {
        known_ = true;
        dropping_ = false;
        edge_ = now;
        read_since_ = {};
        return true;
    }
    read_since_ += length;
    // Once late, everything up to the live edge goes: the newest sound is what is to be heard.
    dropping_ = dropping_ || (now - edge_) - read_since_ > kLate;
    return !dropping_;
}

}  // namespace ox
