#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "transport/packet_header.h"

namespace ox::selftest {

using Bytes = std::vector<uint8_t>;
using Key = std::array<uint8_t, 32>;

/// A key that is not used anywhere else; `seed` tells keys apart.
Key test_key(uint8_t seed);

/// Opens a sealed media payload as a launcher does that knows the wire format alone: additional
/// data and nonce are laid out byte by byte, and libsodium is called directly. A change that hits
/// the agent's sealing and opening alike is thereby found. `nonce_pad` is 0xA5C3 for audio repair
/// symbols and 0 for everything else.
std::optional<Bytes> open_as_launcher(const Key& key, const PacketHeader& header,
                                      std::span<const uint8_t> sealed, uint16_t nonce_pad);

/// The 28 bytes of an input packet in clear.
using InputBytes = std::array<uint8_t, 28>;

/// Seals an input packet as a launcher does: nonce, ciphertext, tag.
Bytes seal_input_as_launcher(const Key& key, const InputBytes& packet);

}  // namespace ox::selftest
