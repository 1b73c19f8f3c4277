#include "transport/nonce.h"

#include "base/byte_order.h"
#include "transport/packet_header.h"

namespace ox::audioparity {

void build_nonce(uint32_t stream, uint32_t frame_id, uint16_t index, uint8_t flags,
                 uint8_t out[kNonceBytes]) {
    constexpr uint16_t kParityPad = 0xA5C3;
    const bool repair_symbol = (flags & packet_flags::AUDIO_PARITY) != 0;
    store_le<uint32_t>(out, stream);
    store_le<uint32_t>(out + 4, frame_id);
    store_le<uint16_t>(out + 8, index);
    store_le<uint16_t>(out + 10, repair_symbol ? kParityPad : uint16_t{0});
}

}  // namespace ox::audioparity
