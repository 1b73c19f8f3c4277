#pragma once

#include <cstdint>

#include "base/unique_fd.h"

namespace ox::test {

/// Six consecutive ports, free for TCP and UDP when taken, below the range the kernel gives out by
/// itself. While the object lives no other test on this machine gets the same ones.
class PortBlock {
  public:
    /// Throws std::runtime_error when nothing is free.
    PortBlock();

    [[nodiscard]] uint16_t base() const noexcept { return base_; }
    [[nodiscard]] uint16_t control() const noexcept { return static_cast<uint16_t>(base_ + 3); }

  private:
    UniqueFd reservation_;
    uint16_t base_ = 0;
};

}  // namespace ox::test
