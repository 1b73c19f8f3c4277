#include "app/session_handover.h"

#include <algorithm>
#include <utility>

#include "base/clock.h"

namespace ox {

void SessionHandover::offer(PrepareSessionParams params) {
    const MutexLock lock(mutex_);
    pending_ = std::move(params);
    pending_terminated_ = false;
    terminate_.exchange(false);
    changed_.notify_all();
}

void SessionHandover::request_terminate(const std::string& session_id) {
    const MutexLock lock(mutex_);
    if (pending_ && (!running_ || pending_->session_id == session_id)) pending_terminated_ = true;
    terminate_.exchange(true);
    changed_.notify_all();
}

bool SessionHandover::is_pending() const {
    const MutexLock lock(mutex_);
    return pending_.has_value();
}

std::optional<PrepareSessionParams> SessionHandover::take(std::chrono::milliseconds limit,
                                                          const std::function<bool()>& stop) {
    // A signal handler cannot notify.
    constexpr std::chrono::milliseconds kSlice{100};
    const auto deadline = SteadyClock::now() + limit;
    MutexLock lock(mutex_);
    // Unless it was meant for the one in the slot, a request to terminate ends with its session.
    if (std::exchange(running_, false) && !pending_terminated_) terminate_.exchange(false);
    while (!pending_ && !stop() && SteadyClock::now() < deadline) {
        lock.wait_until(changed_, std::min(deadline, SteadyClock::now() + kSlice));
    }
    if (!pending_ || stop()) return std::nullopt;
    running_ = true;
    return std::exchange(pending_, std::nullopt);
}

}  // namespace ox
