#include "transport/xor_parity.h"

namespace ox {

void xor_into(uint8_t* __restrict dst, const uint8_t* __restrict src, size_t length) noexcept {
    for (size_t i = 0; i < length; ++i)
        dst[i] = static_cast<uint8_t>(dst[i] ^ src[i]);
}

}  // namespace ox
