#include "transport/encryption.h"

#include <sodium.h>

#include <array>
#include <span>

#include "log/log.h"
#include "transport/nonce.h"

namespace ox {

static_assert(Encryption::kKeyBytes == crypto_aead_chacha20poly1305_IETF_KEYBYTES);
static_assert(kTagBytes == crypto_aead_chacha20poly1305_IETF_ABYTES);
static_assert(audioparity::kNonceBytes == crypto_aead_chacha20poly1305_IETF_NPUBBYTES);

namespace {

const unsigned char* wire_bytes(const PacketHeader& header) {
    return reinterpret_cast<const unsigned char*>(&header);
}

}  // namespace

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
