#pragma once

#include <cstdint>
#include <random>
#include <stdexcept>

#include "base/unique_fd.h"
#include "support/sockets.h"

namespace ox::test {

/// Six consecutive ports, free for TCP and UDP when taken, below the range the kernel gives out by
/// itself. While the object lives no other test on this machine gets the same ones.
class PortBlock {
  public:
    /// Throws std::runtime_error when nothing is free.
    PortBlock() {
        std::random_device random;
        for (int attempt = 0; attempt < 200; ++attempt) {
            base_ = static_cast<uint16_t>(20'000 + 8 * (random() % 1500));
            // The block's next, for nothing else.
            reservation_ = bound_socket(SOCK_STREAM, static_cast<uint16_t>(base_ + kPorts));
            if (reservation_ && all_free()) return;
        }
        throw std::runtime_error("no block of free ports");
    }

    [[nodiscard]] uint16_t base() const noexcept { return base_; }
    [[nodiscard]] uint16_t control() const noexcept { return static_cast<uint16_t>(base_ + 3); }

  private:
    static constexpr uint16_t kPorts = 6;

    [[nodiscard]] bool all_free() const {
        for (uint16_t port = base_; port < base_ + kPorts; ++port) {
            if (!bound_socket(SOCK_STREAM, port) || !bound_socket(SOCK_DGRAM, port)) return false;
        }
        return true;
    }

    UniqueFd reservation_;
    uint16_t base_ = 0;
};

}  // namespace ox::test
