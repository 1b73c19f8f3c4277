#pragma once

#include <cstddef>
#include <cstdint>

namespace ox::audioparity {

inline constexpr size_t kNonceBytes = 12;

/// The 96-bit nonce of a sealed media payload (RFC 8439): stream, frame id and index little-endian,
/// then a pad of 0xA5C3 for audio repair symbols and 0 for everything else, which keeps a repair
/// symbol apart from the data packet that shares its other fields.
void build_nonce(uint32_t stream, uint32_t frame_id, uint16_t index, uint8_t flags,
                 uint8_t out[kNonceBytes]);

}  // namespace ox::audioparity
