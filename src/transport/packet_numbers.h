#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "base/mutex.h"

namespace ox {

/// The numbers (`frame_id`) under which a stream's packets are sealed: ascending, each once. A
/// nonce must not repeat under one key, so they run out rather than wrap. Any thread.
class PacketNumbers {
  public:
    /// One more than the last number.
    static constexpr uint64_t kEnd = uint64_t{1} << 32;

    /// All numbers, for a key that has sealed nothing yet.
    PacketNumbers() : PacketNumbers(0, kEnd) {}
    /// The numbers from `first` up to `end`, without it.
    PacketNumbers(uint64_t first, uint64_t end) { add(first, end); }
    PacketNumbers(const PacketNumbers&) = delete;
    PacketNumbers& operator=(const PacketNumbers&) = delete;

    /// From `first` up to `end`, without it; ignores those not above everything added before.
    void add(uint64_t first, uint64_t end) OX_EXCLUDES(mutex_);

    std::optional<uint32_t> take() OX_EXCLUDES(mutex_);
    [[nodiscard]] std::optional<uint32_t> peek() const OX_EXCLUDES(mutex_);
    /// One more than the highest number ever added.
    [[nodiscard]] uint64_t end() const OX_EXCLUDES(mutex_);
    [[nodiscard]] uint64_t left() const OX_EXCLUDES(mutex_);

  private:
    struct Range {
        uint64_t next;
        uint64_t end;
    };

    mutable Mutex mutex_;
    std::vector<Range> ranges_ OX_GUARDED_BY(mutex_);  ///< ascending, none empty
    uint64_t added_end_ OX_GUARDED_BY(mutex_) = 0;
};

}  // namespace ox
