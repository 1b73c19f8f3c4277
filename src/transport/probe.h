#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret.h"

namespace ox {

/// The first bytes of the token, which a hole-punch probe must carry.
using ProbeToken = SecretArray<8>;

/// A datagram prefix of this length is enough for `classify_probe`.
inline constexpr size_t kProbeReadBytes = 64;

enum class ProbeKind : uint8_t { Invalid, HolePunch, Legacy };

/// A hole-punch probe is "OXP1" and anything or, with a token, exactly "OXP1" and its 8 bytes; a
/// legacy probe is one zero byte from the configured destination address. Pure, constant time.
ProbeKind classify_probe(std::span<const uint8_t> datagram, const std::optional<ProbeToken>& token,
                         in_addr source, in_addr configured);

}  // namespace ox
