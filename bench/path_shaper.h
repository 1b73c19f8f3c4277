#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "base/unique_fd.h"
#include "support/shaped_path.h"

namespace ox::bench {

/// A bottleneck between an agent and a player on this machine: forwards the agent's video datagrams
/// through a ShapedPath, probes the other way at once. The thread ends with the owner.
class PathShaper {
  public:
    /// `agent_port`: where the agent receives probes, 127.0.0.1. Throws std::runtime_error.
    PathShaper(const test::ShapedPath::Setup& setup, uint16_t agent_port);

    /// Where the player sends its probes, 127.0.0.1.
    [[nodiscard]] uint16_t port() const;
    /// When the first video datagram came, steady clock in us; 0 before it.
    [[nodiscard]] uint64_t started_us() const { return started_us_; }

  private:
    void run(const std::stop_token& stop);

    test::ShapedPath path_;
    UniqueFd player_;  ///< connected once it has sent a probe
    UniqueFd agent_;
    std::atomic<uint64_t> started_us_{0};
    std::jthread thread_;
};

}  // namespace ox::bench
