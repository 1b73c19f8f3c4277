#include "saas/outgoing_messages.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <utility>

namespace ox {

OutgoingQueue::OutgoingQueue() : wake_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void OutgoingQueue::push(std::string text) {
    const MutexLock lock(mutex_);
    if (messages_.size() == kMaxMessages) messages_.pop_front();
    if (messages_.empty()) wake();
    messages_.push_back(std::move(text));
}

std::deque<std::string> OutgoingQueue::take_all() {
    const MutexLock lock(mutex_);
    eventfd_t ignored = 0;
    if (wake_fd_) ::eventfd_read(wake_fd_.get(), &ignored);
    return std::exchange(messages_, {});
}

void OutgoingQueue::wake() const {
    if (wake_fd_) ::eventfd_write(wake_fd_.get(), 1);
}

void FinalMessageCache::store(const std::string& key, std::string text) {
    entries_[key] = {.text = std::move(text), .age = stored_++};
    if (entries_.size() <= kMaxEntries) return;
    entries_.erase(std::min_element(entries_.begin(), entries_.end(),
                                    [](auto& a, auto& b) { return a.second.age < b.second.age; }));
}

}  // namespace ox
