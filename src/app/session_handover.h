#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "saas/platform_messages.h"

namespace ox {

/// The one-entry slot through which the platform's connector hands sessions to the main thread. A
/// newer request replaces one that was not taken yet. Offered to from any thread, taken by one.
class SessionHandover {
  public:
    SessionHandover() = default;
    SessionHandover(const SessionHandover&) = delete;
    SessionHandover& operator=(const SessionHandover&) = delete;

    /// Puts `params` into the slot. Also takes back a wish to terminate: that one was meant for the
    /// session before.
    void offer(PrepareSessionParams params);

    /// Asks the session that was taken last to end, and wakes the waiting thread. The one in the
    /// slot follows all the same, unless it is the one that `session_id` names or none was taken
    /// before it.
    void request_terminate(const std::string& session_id);

    /// Set while the running session is to end.
    [[nodiscard]] const std::atomic<bool>& terminate_requested() const { return terminate_; }

    /// Whether there is something in the slot.
    [[nodiscard]] bool is_pending() const;

    /// Takes what is in the slot, waiting for it until `limit` has passed or `stop`, asked every
    /// 100 ms, returns true. Nothing when neither came. The call says that the session before has
    /// ended.
    std::optional<PrepareSessionParams> take(std::chrono::milliseconds limit,
                                             const std::function<bool()>& stop);

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<PrepareSessionParams> pending_;  ///< guarded by mutex_
    bool running_ = false;                         ///< guarded by mutex_; what was taken last
    bool pending_terminated_ = false;              ///< guarded by mutex_
    std::atomic<bool> terminate_{false};
};

}  // namespace ox
