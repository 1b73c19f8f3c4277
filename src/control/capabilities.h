#pragma once

#include <cstdint>

namespace ox {

/// Bits of the "caps" fields in a launcher's auth line and in the answer to it.
namespace caps {
inline constexpr uint32_t RFI = 0x01;     ///< lost pictures can be given up as references
inline constexpr uint32_t kKnown = 0x03;  ///< bits that are ever granted
}  // namespace caps

/// What a launcher is granted of what it asked for.
constexpr uint32_t grant_caps(uint32_t launcher_caps, uint32_t host_caps) {
    return launcher_caps & host_caps & caps::kKnown;
}

}  // namespace ox
