#pragma once

#include <cstdint>
#include <span>

#include "base/secret.h"

namespace ox {

/// The three stream keys of one session, 32 bytes each once made.
struct SessionKeySet {
    Secret video_key;
    Secret audio_key;
    Secret input_key;

    /// From 32 bytes, by libsodium's crypto_kdf, subkeys 1 to 3, contexts "oxvideo1", "oxaudio1"
    /// and "oxinput1"; a master of any other length gives random keys.
    void generate(std::span<const uint8_t> master_key);
};

/// The answer to an accepted auth line, with the keys.
Secret make_session_ready(const SessionKeySet& keys, uint32_t granted_caps);

/// Standard base64 with padding (RFC 4648 section 4).
Secret to_base64(std::span<const uint8_t> bytes);

}  // namespace ox
