#include "video/portal/share_watch.h"

#include <utility>

namespace ox::portal {
namespace {

using std::chrono::milliseconds;

// Events of different programs come in any order; a renegotiation takes a quarter of this.
constexpr milliseconds kSettleTime{1000};
constexpr milliseconds kQueryAfter{300};
// A monitor's change is announced before its stream ends.
constexpr milliseconds kDisturbanceWindow{1000};

}  // namespace

void ShareWatch::stream_state(bool running, Time now) {
    if (!running) {
        if (!interrupted_at_) interrupted_at_ = now;
    } else if (!closed_) {
        interrupted_at_.reset();
        queried_ = confirmed_ = false;
    }
}

void ShareWatch::session_closed(Time now) {
    closed_ = true;
    if (!interrupted_at_) interrupted_at_ = now;
}

bool ShareWatch::should_query_session(Time now) {
    if (!interrupted_at_ || closed_ || now - *interrupted_at_ < kQueryAfter) return false;
    return !std::exchange(queried_, true);
}

bool ShareWatch::was_disturbed() const {
    return disturbed_at_ && *disturbed_at_ >= *interrupted_at_ - kDisturbanceWindow;
}

ShareWatch::Verdict ShareWatch::verdict(Time now) {
    if (final_ != Verdict::Runs) return final_;
    if (!interrupted_at_) return Verdict::Runs;
    const bool settled = now - *interrupted_at_ >= kSettleTime;
    if (was_disturbed() && (closed_ || settled)) return final_ = Verdict::Lost;
    if (!settled) return closed_ ? Verdict::Closing : Verdict::Paused;
    return final_ = !closed_ && confirmed_ ? Verdict::Lost : Verdict::Stopped;
}

}  // namespace ox::portal
