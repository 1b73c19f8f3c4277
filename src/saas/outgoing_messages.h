#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>

#include "base/mutex.h"
#include "base/unique_fd.h"

namespace ox {

/// The messages that the worker has yet to send, with a descriptor that is readable while there are
/// some. Any thread. Beyond `kMaxMessages` the oldest are dropped.
class OutgoingQueue {
  public:
    static constexpr size_t kMaxMessages = 16'384;

    OutgoingQueue();

    void push(std::string text);
    std::deque<std::string> take_all();
    /// Makes the descriptor readable without a message.
    void wake() const;

    /// -1 when the system had no descriptor left: then the worker has to poll `take_all`.
    [[nodiscard]] int wake_fd() const noexcept { return wake_fd_.get(); }

  private:
    const UniqueFd wake_fd_;
    Mutex mutex_;
    std::deque<std::string> messages_ OX_GUARDED_BY(mutex_);
};

/// The messages about how sessions ended, which are sent again after every reconnect. Holds the
/// newest `kMaxEntries`. Not thread-safe.
class FinalMessageCache {
  public:
    static constexpr size_t kMaxEntries = 256;

    struct Entry {
        std::string text;
        uint64_t age = 0;  ///< running number of the `store` that wrote it
    };

    /// Stores `text`, in place of an entry with the same key.
    void store(const std::string& key, std::string text);

    /// In ascending order of the keys.
    [[nodiscard]] const std::map<std::string, Entry>& entries() const noexcept { return entries_; }

  private:
    std::map<std::string, Entry> entries_;
    uint64_t stored_ = 0;
};

}  // namespace ox
