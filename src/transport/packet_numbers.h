#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

namespace ox {

/// Gives out the numbers (`frame_id`) under which the packets of one stream are sealed, in
/// ascending order and each once. A number is part of the nonce, so that none may come twice under
/// one key: they end rather than wrap. Any thread.
class PacketNumbers {
  public:
    /// One more than the last number there is.
    static constexpr uint64_t kEnd = uint64_t{1} << 32;

    /// All numbers, for a key that has sealed nothing yet.
    PacketNumbers() : PacketNumbers(0, kEnd) {}
    /// The numbers from `first` up to `end`, without it.
    PacketNumbers(uint64_t first, uint64_t end) { add(first, end); }
    PacketNumbers(const PacketNumbers&) = delete;
    PacketNumbers& operator=(const PacketNumbers&) = delete;

    /// Adds the numbers from `first` up to `end`, without it, behind those that are there. What is
    /// not above all that was ever added is left out.
    void add(uint64_t first, uint64_t end);

    /// The next number; nothing when there is none left.
    std::optional<uint32_t> take();
    /// What `take` would give.
    [[nodiscard]] std::optional<uint32_t> peek() const;
    /// The end of all that was ever added.
    [[nodiscard]] uint64_t end() const;
    /// How many are left.
    [[nodiscard]] uint64_t left() const;

  private:
    struct Range {
        uint64_t next;
        uint64_t end;
    };

    mutable std::mutex mutex_;
    std::vector<Range> ranges_;  ///< ascending, none empty; guarded by mutex_
    uint64_t added_end_ = 0;     ///< end of all that was added; guarded by mutex_
};

}  // namespace ox
