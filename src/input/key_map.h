#pragma once

#include <cstdint>

namespace ox {

/// The Linux key code (linux/input-event-codes.h) for a key as a launcher on Windows names it:
/// virtual-key code, set-1 scan code, and whether it is of the extended set. 0 when there is none.
int linux_key_code(uint16_t virtual_key, uint8_t scan_code, bool extended);

}  // namespace ox
