#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "base/unique_fd.h"
#include "launcher/input_sealer.h"

namespace ox::launcher {

/// What has been sent, in packets; copies do not count.
struct InputCounters {
    uint64_t events = 0;
    uint64_t keyframe_requests = 0;
    uint64_t lost_frames_requests = 0;
    uint64_t media_feedback = 0;
};

/// The launcher's way to the agent's input port. After `open`, any thread may send.
class InputChannel {
  public:
    /// Takes the agent's address and the session's input key. False, with a text for the user in
    /// `error`, when there is no socket to be had.
    bool open(const std::string& ip, uint16_t port,
              std::span<const uint8_t, InputSealer::kKeyBytes> key, std::string& error);

    /// Sends one packet. What must not get lost goes out twice: the agent takes a datagram only
    /// once. Nothing tells whether it arrived, or whether the agent takes input at all.
    void send(const InputPacket& packet);

    [[nodiscard]] InputCounters counters() const;

  private:
    void count(const InputPacket& packet);

    UniqueFd socket_;
    sockaddr_in agent_{};
    mutable std::mutex mutex_;
    std::optional<InputSealer> sealer_;  ///< guarded by mutex_, as what follows
    InputCounters counters_;
};

}  // namespace ox::launcher
