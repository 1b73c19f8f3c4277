#pragma once

#include <cstddef>
#include <cstdint>

#include "base/secret.h"
#include "transport/packet.h"

namespace ox {

namespace audioparity {

inline constexpr size_t kNonceBytes = 12;

/// 96 bits (RFC 8439): stream, frame id and index little-endian, then a pad of 0xA5C3 for audio
/// repair symbols, else 0, as these share a data packet's other fields.
void build_nonce(uint32_t stream, uint32_t frame_id, uint16_t index, uint8_t flags,
                 uint8_t out[kNonceBytes]);

}  // namespace audioparity

/// Seals media payloads under one stream key with ChaCha20-Poly1305 (RFC 8439), the packet header
/// being the additional data. Used by one sending thread at a time; the key exists in one place.
class Encryption {
  public:
    static constexpr size_t kKeyBytes = 32;

    Encryption();
    Encryption(const Encryption&) = delete;
    Encryption& operator=(const Encryption&) = delete;

    /// Takes a key of exactly 32 bytes. Any other length: false, keeping the old key.
    bool set_key(const uint8_t* key, size_t length);

    static void build_nonce(const PacketHeader& header, uint8_t out[12]);

    /// `out` has room for `length` + 16 and may be `plaintext`. False when no key is set
    /// (`out_length` 0) or libsodium fails.
    bool encrypt_packet(const PacketHeader& header, const uint8_t* plaintext, size_t length,
                        uint8_t* out, size_t& out_length) const;
    /// Seals the packet's payload in place. False as above.
    bool seal(OutgoingPacket& packet) const;

  private:
    SecretArray<kKeyBytes> key_;
    bool key_set_ = false;
};

/// Opens ciphertext and tag under a 32-byte key into `out` (room for `length` - 16). False, without
/// a log line or `out_length`, when altered or shorter than 16.
bool decrypt_packet_with_key(const uint8_t* key, const PacketHeader& header, const uint8_t* sealed,
                             size_t length, uint8_t* out, size_t& out_length);

}  // namespace ox
