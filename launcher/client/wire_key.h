#pragma once

#include <cstdint>

#include "input/input_packet.h"

namespace ox::launcher {

/// A key as input packets name it.
struct WireKey {
    uint8_t scan_code = 0;     ///< of set 1
    bool extended = false;     ///< of the extended set, with the prefix E0
    uint16_t virtual_key = 0;  ///< of Windows, as on a US keyboard with Num Lock; 0 = none

    bool operator==(const WireKey&) const = default;
};

/// The key with this scan code; Num Lock for 69.
WireKey wire_key(uint8_t scan_code, bool extended = false);

/// Has the scan code of Num Lock.
inline constexpr WireKey kPauseKey{.scan_code = 69, .virtual_key = 0x13};

InputPacket make_key_packet(const WireKey& key, bool down);

}  // namespace ox::launcher
