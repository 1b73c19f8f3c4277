#include "video/portal/share_watch.h"

#include <utility>

namespace ox::portal {
namespace {

using std::chrono::milliseconds;

// What comes from different programs comes in any order; a renegotiation takes a quarter of it.
constexpr milliseconds kSettle{1000};
constexpr milliseconds kAskAfter{300};
// A change of a monitor is told before the stream that showed it ends.
constexpr milliseconds kBefore{1000};

}  // namespace

void ShareWatch::stream(bool runs, Time now) {
    if (!runs) {
        if (!since_) since_ = now;
    } else if (!closed_) {
        since_.reset();
        asked_ = still_open_ = false;
    }
}

void ShareWatch::closed(Time now) {
    closed_ = true;
    if (!since_) since_ = now;
}

bool ShareWatch::wants_to_ask(Time now) {
    if (!since_ || closed_ || now - *since_ < kAskAfter) return false;
    return !std::exchange(asked_, true);
}

bool ShareWatch::was_disturbed() const {
    return disturbed_ && *disturbed_ >= *since_ - kBefore;
}

ShareWatch::Verdict ShareWatch::verdict(Time now) {
    if (final_ != Verdict::Runs) return final_;
    if (!since_) return Verdict::Runs;
    const bool settled = now - *since_ >= kSettle;
    if (was_disturbed() && (closed_ || settled)) return final_ = Verdict::Lost;
    if (!settled) return closed_ ? Verdict::Closing : Verdict::Paused;
    return final_ = !closed_ && still_open_ ? Verdict::Lost : Verdict::Stopped;
}

}  // namespace ox::portal
