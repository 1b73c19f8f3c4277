#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "base/secret.h"

namespace ox {

/// The first bytes of a token that a hole-punch probe has to show.
using ProbeToken = SecretArray<8>;

/// The longest datagram prefix that `classify_probe` can tell apart from any other.
inline constexpr size_t kProbeReadBytes = 64;

enum class ProbeKind : uint8_t { Invalid, HolePunch, Legacy };

/// What a datagram that came to a sender's port is:
/// - a hole-punch probe: "OXP1" and whatever follows, or, once a token is set, "OXP1" and its 8
///   bytes and nothing else;
/// - a legacy probe: one zero byte from the very address that media is configured to go to.
/// Pure; the token is compared in constant time.
ProbeKind classify_probe(std::span<const uint8_t> datagram, const std::optional<ProbeToken>& token,
                         in_addr source, in_addr configured);

}  // namespace ox
