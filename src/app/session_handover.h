#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <optional>
#include <string>

#include "base/mutex.h"
#include "saas/platform_messages.h"

namespace ox {

/// A slot for one session, between the platform's connector and the main thread. A newer request
/// replaces one that was not taken yet. `offer` and `request_terminate` may be called from any
/// thread.
class SessionHandover {
  public:
    SessionHandover() = default;
    SessionHandover(const SessionHandover&) = delete;
    SessionHandover& operator=(const SessionHandover&) = delete;

    /// Fills the slot. Cancels a request to terminate, which was meant for the session before.
    void offer(PrepareSessionParams params);

    /// Ends the session that was taken last. If none was, or `session_id` names the one in the
    /// slot, that one is to end as soon as it is taken.
    void request_terminate(const std::string& session_id);

    /// The running session is to end.
    [[nodiscard]] const std::atomic<bool>& terminate_requested() const { return terminate_; }

    [[nodiscard]] bool is_pending() const;

    /// Takes what is in the slot, waiting for it until `limit` has passed or `stop`, called every
    /// 100 ms, returns true. The session before must have ended.
    std::optional<PrepareSessionParams> take(std::chrono::milliseconds limit,
                                             const std::function<bool()>& stop);

  private:
    mutable Mutex mutex_;
    std::condition_variable changed_;
    std::optional<PrepareSessionParams> pending_ OX_GUARDED_BY(mutex_);
    bool running_ OX_GUARDED_BY(mutex_) = false;  ///< a session was taken
    bool pending_terminated_ OX_GUARDED_BY(mutex_) = false;
    std::atomic<bool> terminate_{false};
};

}  // namespace ox
