#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "fountain/gf256.h"

namespace ox::fountain {

/// Collects the blocks that one row adds up, so that they are summed in a single pass.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled as far as it is read
class BlockSum {
  public:
    void add(const uint8_t* block) noexcept { blocks_[count_++] = block; }

    /// Writes the sum of the blocks added, at least one.
    void store(uint8_t* dest, size_t bytes) const noexcept {
        gf256_sum_mem(dest, blocks_.data(), count_, bytes);
    }

  private:
    // A row's peel and mix columns and its own received block.
    std::array<const uint8_t*, kMaxRowWeight + kMixPerRow + 1> blocks_;
    size_t count_ = 0;
};

}  // namespace ox::fountain
