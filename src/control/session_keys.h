#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ox {

/// The three stream keys of one session, 32 bytes each once made. The destructor wipes them.
struct SessionKeySet {
    std::vector<uint8_t> video_key;
    std::vector<uint8_t> audio_key;
    std::vector<uint8_t> input_key;

    SessionKeySet() = default;
    SessionKeySet(const SessionKeySet&) = delete;
    SessionKeySet& operator=(const SessionKeySet&) = delete;
    ~SessionKeySet();

    /// Derives the keys from a 32-byte master key (libsodium crypto_kdf, subkeys 1 to 3 with the
    /// contexts "oxvideo1", "oxaudio1", "oxinput1"); a master of any other length gives random
    /// keys.
    void generate(const std::vector<uint8_t>& master_key);
};

/// Standard base64 with padding (RFC 4648 section 4).
std::string to_base64(const std::vector<uint8_t>& bytes);

}  // namespace ox
