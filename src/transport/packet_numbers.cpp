#include "transport/packet_numbers.h"

#include <algorithm>

namespace ox {

void PacketNumbers::add(uint64_t first, uint64_t end) {
    const MutexLock lock(mutex_);
    first = std::max(first, added_end_);
    end = std::min(end, kEnd);
    if (first >= end) return;
    if (!ranges_.empty() && ranges_.back().end == first) {
        ranges_.back().end = end;
    } else {
        ranges_.push_back({first, end});
    }
    added_end_ = end;
}

std::optional<uint32_t> PacketNumbers::take() {
    const MutexLock lock(mutex_);
    if (ranges_.empty()) return std::nullopt;
    Range& range = ranges_.front();
    const auto number = static_cast<uint32_t>(range.next++);
    if (range.next == range.end) ranges_.erase(ranges_.begin());
    return number;
}

std::optional<uint32_t> PacketNumbers::peek() const {
    const MutexLock lock(mutex_);
    if (ranges_.empty()) return std::nullopt;
    return static_cast<uint32_t>(ranges_.front().next);
}

uint64_t PacketNumbers::end() const {
    const MutexLock lock(mutex_);
    return added_end_;
}

uint64_t PacketNumbers::left() const {
    const MutexLock lock(mutex_);
    uint64_t sum = 0;
    for (const Range& range : ranges_)
        sum += range.end - range.next;
    return sum;
}

}  // namespace ox
