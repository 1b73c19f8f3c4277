#pragma once

#include <bit>
#include <cstdint>
#include <vector>

namespace ox::fountain {

/// The ids of the blocks that a decoder holds, numbered in order of arrival.
class ReceivedIds {
  public:
    static constexpr uint32_t kNone = UINT32_MAX;

    /// Empties the list; it will hold at most `limit` ids.
    void reset(uint32_t limit) {
        ids_.clear();
        ids_.reserve(limit);
        slots_.assign(std::bit_ceil(limit + limit / 2 + 2), 0);
    }

    /// The number of an id, or kNone.
    [[nodiscard]] uint32_t find(uint32_t id) const noexcept {
        const uint32_t entry = slots_[slot_of(id)];
        return entry == 0 ? kNone : entry - 1;
    }

    /// Appends an id that is not in the list.
    void append(uint32_t id) noexcept {
        const size_t slot = slot_of(id);
        ids_.push_back(id);
        slots_[slot] = size();
    }

    /// Removes the newest id.
    void drop_last() noexcept {
        slots_[slot_of(ids_.back())] = 0;  // nothing was placed behind it
        ids_.pop_back();
    }

    [[nodiscard]] uint32_t size() const noexcept { return static_cast<uint32_t>(ids_.size()); }
    [[nodiscard]] const std::vector<uint32_t>& ids() const noexcept { return ids_; }

  private:
    // Open addressing; the slot that holds the id or the free one where it belongs.
    [[nodiscard]] size_t slot_of(uint32_t id) const noexcept {
        const size_t mask = slots_.size() - 1;
        const uint32_t hash = id * 0x9e3779b1U;
        size_t slot = hash & mask;
        while (slots_[slot] != 0 && ids_[slots_[slot] - 1] != id)
            slot = (slot + 1) & mask;
        return slot;
    }

    std::vector<uint32_t> ids_;
    std::vector<uint32_t> slots_;  ///< number of an id plus one, 0 for a free slot
};

}  // namespace ox::fountain
