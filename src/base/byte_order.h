#pragma once

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>

namespace ox {

// Every wire format is little-endian, and packed structures are sent as they are in memory.
static_assert(std::endian::native == std::endian::little, "the wire structs assume little-endian");

/// Writes `value` to `out` (sizeof(value) bytes, any alignment), least significant byte first.
template <std::unsigned_integral T>
void store_le(uint8_t* out, T value) noexcept {
    std::memcpy(out, &value, sizeof value);
}

template <std::unsigned_integral T>
[[nodiscard]] T load_le(const uint8_t* in) noexcept {
    T value;
    std::memcpy(&value, in, sizeof value);
    return value;
}

}  // namespace ox
