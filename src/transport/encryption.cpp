#include "transport/encryption.h"

#include <sodium.h>

#include <array>
#include <span>

#include "base/byte_order.h"
#include "log/log.h"

namespace ox {

static_assert(Encryption::kKeyBytes == crypto_aead_chacha20poly1305_IETF_KEYBYTES);
static_assert(kTagBytes == crypto_aead_chacha20poly1305_IETF_ABYTES);
static_assert(audioparity::kNonceBytes == crypto_aead_chacha20poly1305_IETF_NPUBBYTES);

namespace {

const unsigned char* wire_bytes(const PacketHeader& header) {
    return reinterpret_cast<const unsigned char*>(&header);
}

}  // namespace

void audioparity::build_nonce(uint32_t stream, uint32_t frame_id, uint16_t index, uint8_t flags,
                              uint8_t out[kNonceBytes]) {
    constexpr uint16_t kParityPad = 0xA5C3;
    const bool repair_symbol = (flags & packet_flags::AUDIO_PARITY) != 0;
    store_le<uint32_t>(out, stream);
    store_le<uint32_t>(out + 4, frame_id);
    store_le<uint16_t>(out + 8, index);
    store_le<uint16_t>(out + 10, repair_symbol ? kParityPad : uint16_t{0});
}

Encryption::Encryption() {
    if (sodium_init() < 0) OX_ERROR("Encryption: libsodium initialization failed");
}

bool Encryption::set_key(const uint8_t* key, size_t length) {
    if (length != kKeyBytes) {
        OX_ERROR("Encryption: invalid key size %zu (expected %u)", length,
                 static_cast<unsigned>(kKeyBytes));
        return false;
    }
    key_.assign(std::span<const uint8_t, kKeyBytes>(key, kKeyBytes));
    key_set_ = true;
    OX_INFO("Encryption: key set");
    return true;
}

void Encryption::build_nonce(const PacketHeader& header, uint8_t out[12]) {
    audioparity::build_nonce(header.stream, header.frame_id, header.index, header.flags, out);
}

bool Encryption::encrypt_packet(const PacketHeader& header, const uint8_t* plaintext, size_t length,
                                uint8_t* out, size_t& out_length) const {
    out_length = 0;
    if (!key_set_) return false;
    std::array<uint8_t, audioparity::kNonceBytes> nonce{};
    build_nonce(header, nonce.data());
    unsigned long long sealed_length = 0;
    if (crypto_aead_chacha20poly1305_ietf_encrypt(out, &sealed_length, plaintext, length,
                                                  wire_bytes(header), kHeaderBytes, nullptr,
                                                  nonce.data(), key_.data()) != 0) {
        OX_ERROR("Encryption: ietf_encrypt failed");
        return false;
    }
    out_length = static_cast<size_t>(sealed_length);
    return true;
}

bool Encryption::seal(OutgoingPacket& packet) const {
    PacketPayload& payload = packet.payload;
    size_t sealed_bytes = 0;
    if (!encrypt_packet(packet.header, payload.data(), payload.size(), payload.data(),
                        sealed_bytes)) {
        return false;
    }
    payload.resize(sealed_bytes);
    return true;
}

bool decrypt_packet_with_key(const uint8_t* key, const PacketHeader& header, const uint8_t* sealed,
                             size_t length, uint8_t* out, size_t& out_length) {
    if (length < kTagBytes) return false;
    std::array<uint8_t, audioparity::kNonceBytes> nonce{};
    Encryption::build_nonce(header, nonce.data());
    unsigned long long opened_length = 0;
    if (crypto_aead_chacha20poly1305_ietf_decrypt(out, &opened_length, nullptr, sealed, length,
                                                  wire_bytes(header), kHeaderBytes, nonce.data(),
                                                  key) != 0) {
        return false;
    }
    out_length = static_cast<size_t>(opened_length);
    return true;
}

}  // namespace ox
