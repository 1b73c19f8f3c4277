#pragma once

#include <cstdint>

namespace ox {

/// The Linux key code (linux/input-event-codes.h) of a Windows virtual-key code, set-1 scan code
/// and extended flag; 0 when there is none.
int linux_key_code(uint16_t virtual_key, uint8_t scan_code, bool extended);

}  // namespace ox
