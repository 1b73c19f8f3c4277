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

    /// Whether an agent that got every packet since would still take the datagram: this sealer made
    /// it, and fewer than 64 after it.
    [[nodiscard]] bool is_recent(const Datagram& datagram) const;

  private:
    SecretArray<kKeyBytes> key_;
    Prefix prefix_{};
    uint64_t count_ = 0;
};

/// What was sent. Nothing is acknowledged: of the losses, only `failed` is known here.
struct InputCounters {
    uint64_t events = 0;
    uint64_t keyframe_requests = 0;
    uint64_t lost_frames_requests = 0;
    uint64_t media_feedback = 0;
    uint64_t copies = 0;  ///< datagrams beyond the first of each packet
    uint64_t failed = 0;  ///< datagrams that this system did not send
};

/// Sends input and feedback to the agent's input port. Any thread.
class InputChannel {
  public:
    /// Sets the agent's address and the session's input key, also anew. False, with a text for the
    /// user in `error`, without a socket.
    bool open(const std::string& ip, uint16_t port,
              std::span<const uint8_t, InputSealer::kKeyBytes> key, std::string& error);

    /// Sends one packet, twice if it must not get lost: the agent drops copies. Nothing is
    /// acknowledged.
    void send(const InputPacket& packet);

    /// Sends one packet once. The datagram is for `repeat`; nothing before `open`.
    std::optional<InputSealer::Datagram> send_once(const InputPacket& packet);

    /// Sends a datagram again byte for byte, unless the agent would drop it as too old.
    void repeat(const InputSealer::Datagram& datagram);

    [[nodiscard]] InputCounters counters() const;

  private:
    std::optional<InputSealer::Datagram> seal(const InputPacket& packet) OX_REQUIRES(mutex_);
    void transmit(const InputSealer::Datagram& datagram) OX_REQUIRES(mutex_);
    void count(const InputPacket& packet) OX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    UniqueFd socket_ OX_GUARDED_BY(mutex_);
    sockaddr_in agent_ OX_GUARDED_BY(mutex_){};
    std::optional<InputSealer> sealer_ OX_GUARDED_BY(mutex_);
    InputCounters counters_ OX_GUARDED_BY(mutex_);
};

}  // namespace ox::launcher
