#include "input/input_datagram.h"

#include <sodium.h>

#include <array>
#include <cstring>

namespace ox {

bool open_input_datagram(const uint8_t* key, std::span<const uint8_t> datagram,
                         InputPacket& packet) {
    if (datagram.size() != kInputDatagramBytes) return false;
    std::array<uint8_t, sizeof(InputPacket)> plain{};
    unsigned long long plain_length = 0;
    if (::crypto_aead_chacha20poly1305_ietf_decrypt(
            plain.data(), &plain_length, nullptr, datagram.data() + kInputNonceBytes,
            kInputDatagramBytes - kInputNonceBytes, nullptr, 0, datagram.data(), key) != 0) {
        return false;
    }
    std::memcpy(&packet, plain.data(), sizeof packet);
    return true;
}

}  // namespace ox
