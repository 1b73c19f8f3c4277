#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

#include "base/unique_fd.h"

namespace ox {

/// The messages that wait for the connector's worker, with a descriptor for its `poll` that is
/// readable while there is a reason to look. Any thread. Holds at most `kMaxMessages`; the oldest
/// go first then, since without a link nothing else would ever end the growth.
class OutgoingQueue {
  public:
    static constexpr size_t kMaxMessages = 16'384;

    OutgoingQueue();

    void push(std::string text);
    /// Takes everything, oldest first, and makes the descriptor unreadable.
    std::deque<std::string> take_all();
    /// Makes the descriptor readable without a message.
    void wake() const;

    /// -1 when the system had no descriptor left; then the worker has to look from time to time.
    [[nodiscard]] int wake_fd() const noexcept { return wake_fd_.get(); }

  private:
    const UniqueFd wake_fd_;
    std::mutex mutex_;
    std::deque<std::string> messages_;  ///< guarded by `mutex_`
};

}  // namespace ox
