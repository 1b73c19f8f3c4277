#include "saas/terminal_cache.h"

#include <algorithm>
#include <utility>

namespace ox {

void TerminalCache::store(const std::string& key, std::string text) {
    entries_[key] = {.text = std::move(text), .age = stored_++};
    if (entries_.size() <= kMaxEntries) return;
    entries_.erase(std::min_element(entries_.begin(), entries_.end(),
                                    [](auto& a, auto& b) { return a.second.age < b.second.age; }));
}

}  // namespace ox
