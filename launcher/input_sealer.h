#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret.h"
#include "input/input_packet.h"

namespace ox::launcher {

/// Seals input packets under one session's key. The nonce is a prefix, drawn anew for each sealer,
/// and a count that never repeats: a platform may give two sessions the same key.
/// One thread at a time.
class InputSealer {
  public:
    static constexpr size_t kKeyBytes = 32;
    using Prefix = std::array<uint8_t, 8>;
    using Datagram = std::array<uint8_t, kInputDatagramBytes>;

    /// With a random prefix.
    explicit InputSealer(std::span<const uint8_t, kKeyBytes> key);
    /// With the prefix given; `first` is the count of the first packet.
    InputSealer(std::span<const uint8_t, kKeyBytes> key, const Prefix& prefix, uint32_t first);
    InputSealer(const InputSealer&) = delete;
    InputSealer& operator=(const InputSealer&) = delete;

    /// The datagram of `packet`, whose version and sequence number are set here. Nothing once all
    /// 2^32 counts are used.
    std::optional<Datagram> seal(InputPacket packet);

  private:
    SecretArray<kKeyBytes> key_;
    Prefix prefix_{};
    uint64_t count_ = 0;
};

}  // namespace ox::launcher
