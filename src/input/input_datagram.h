#pragma once

#include <cstdint>
#include <span>

#include "input/input_packet.h"

namespace ox {

/// Opens one sealed input datagram (layout in input_packet.h; ChaCha20-Poly1305 of RFC 8439 without
/// additional data) under a 32-byte key. False, with `packet` untouched, when its length is not
/// `kInputDatagramBytes` or anything in it was altered. Keeps nothing, allocates nothing.
bool open_input_datagram(const uint8_t* key, std::span<const uint8_t> datagram,
                         InputPacket& packet);

}  // namespace ox
