#pragma once

#include <cstddef>
#include <cstdint>

namespace ox {

/// XORs `length` bytes of `src` into `dst`. The two do not overlap; any alignment.
void xor_into(uint8_t* dst, const uint8_t* src, size_t length) noexcept;

}  // namespace ox
