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

/// A slot for one session, from the platform's connector to the main thread; the newest request
/// counts. Any thread may offer and terminate.
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

    [[nodiscard]] const std::atomic<bool>& terminate_requested() const { return terminate_; }

    [[nodiscard]] bool is_pending() const;

    /// Waits until `limit`, or `stop`, called every 100 ms. The session before must have ended.
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
