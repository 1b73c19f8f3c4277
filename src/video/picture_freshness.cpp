#include "video/picture_freshness.h"

namespace ox {

PictureFreshness::Need PictureFreshness::next(uint64_t announced, SteadyClock::time_point now) {
    if (suspected_at_) {
        const bool explained = announced > suspected_count_;
        if (!explained && now - *suspected_at_ >= kCheckPeriod) trusted_ = false;
        if (explained || !trusted_) suspected_at_.reset();
    }
    if (!trusted_ || suspected_at_ || seen_ != announced) return Need::Fetch;
    return now - fetched_at_ >= kCheckPeriod ? Need::Check : Need::Nothing;
}

void PictureFreshness::fetched(uint64_t announced, SteadyClock::time_point now) {
    seen_ = announced;
    fetched_at_ = now;
}

void PictureFreshness::found_change(SteadyClock::time_point now) {
    if (suspected_at_) return;
    suspected_at_ = now;
    suspected_count_ = seen_.value_or(0);
}

}  // namespace ox
