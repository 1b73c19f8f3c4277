#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace ox::launcher {

/// A key as an input packet names it: virtual-key code of Windows, scan code of set 1, and whether
/// the scan code is of the extended set (those with an E0 prefix).
struct Key {
    uint16_t virtual_key = 0;
    uint8_t scan_code = 0;
    bool extended = false;
};

/// The key called `name` ("a", "7", "f5", "enter", "right_ctrl", ...) on a US keyboard.
std::optional<Key> find_key(std::string_view name);

}  // namespace ox::launcher
