#pragma once

#include <netinet/in.h>

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/mutex.h"
#include "base/secret.h"
#include "base/unique_fd.h"
#include "input/input_packet.h"

namespace ox::launcher {

/// Seals input packets under one session's key. The nonce is a random prefix per sealer and a count
/// that never repeats, since a platform may give two sessions the same key. One thread at a time.
class InputSealer {
  public:
    static constexpr size_t kKeyBytes = 32;
    using Prefix = std::array<uint8_t, 8>;
    using Datagram = std::array<uint8_t, kInputDatagramBytes>;

    /// With a random prefix.
    explicit InputSealer(std::span<const uint8_t, kKeyBytes> key);
    /// `first` is the count of the first packet.
    InputSealer(std::span<const uint8_t, kKeyBytes> key, const Prefix& prefix, uint32_t first);
    InputSealer(const InputSealer&) = delete;
    InputSealer& operator=(const InputSealer&) = delete;

    /// Sets version and sequence number and seals. Nothing once all 2^32 counts are used.
    std::optional<Datagram> seal(InputPacket packet);

  private:
    SecretArray<kKeyBytes> key_;
    Prefix prefix_{};
    uint64_t count_ = 0;
};

/// Packets sent, without copies.
struct InputCounters {
    uint64_t events = 0;
    uint64_t keyframe_requests = 0;
    uint64_t lost_frames_requests = 0;
    uint64_t media_feedback = 0;
};

/// Sends input and feedback to the agent's input port. Any thread.
class InputChannel {
  public:
    /// Sets the agent's address and the session's input key, also anew. False, with a text for the user in
    /// `error`, without a socket.
    bool open(const std::string& ip, uint16_t port,
              std::span<const uint8_t, InputSealer::kKeyBytes> key, std::string& error);

    /// Sends one packet, twice if it must not get lost: the agent drops copies. Nothing is
    /// acknowledged.
    void send(const InputPacket& packet);

    [[nodiscard]] InputCounters counters() const;

  private:
    void count(const InputPacket& packet) OX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    UniqueFd socket_ OX_GUARDED_BY(mutex_);
    sockaddr_in agent_ OX_GUARDED_BY(mutex_){};
    std::optional<InputSealer> sealer_ OX_GUARDED_BY(mutex_);
    InputCounters counters_ OX_GUARDED_BY(mutex_);
};

}  // namespace ox::launcher
