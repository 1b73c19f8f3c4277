#pragma once

#include <cstdint>
#include <random>
#include <stdexcept>

#include "base/unique_fd.h"
#include "support/sockets.h"

namespace ox::test {

/// Six consecutive free ports for TCP and UDP, below the kernel's ephemeral range. No other test on
/// this machine gets the same ones meanwhile.
class PortBlock {
  public:
    /// Throws std::runtime_error when nothing is free.
    PortBlock() {
        std::random_device random;
        for (int attempt = 0; attempt < 200; ++attempt) {
            base_ = static_cast<uint16_t>(20'000 + 8 * (random() % 1500));
            // The next port marks the block as taken.
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
