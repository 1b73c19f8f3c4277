#include "control/session_keys.h"

#include <sodium.h>

#include "control/wipe.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr size_t kKeyBytes = 32;

// What an earlier length left outside the new one would escape the final wiping.
void make_key_sized(std::vector<uint8_t>& key) {
    if (key.size() == kKeyBytes) return;
    wipe(key);
    key.resize(kKeyBytes);
}

}  // namespace

SessionKeySet::~SessionKeySet() {
    wipe(video_key);
    wipe(audio_key);
    wipe(input_key);
}

void SessionKeySet::generate(const std::vector<uint8_t>& master_key) {
    struct Stream {
        std::vector<uint8_t>& key;
        uint64_t subkey_id;
        const char* context;  ///< crypto_kdf_CONTEXTBYTES are read
    };
    const Stream streams[] = {
        {video_key, 1, "oxvideo1"}, {audio_key, 2, "oxaudio1"}, {input_key, 3, "oxinput1"}};
    const bool derive = master_key.size() == crypto_kdf_KEYBYTES;
    for (const auto& stream : streams) {
        make_key_sized(stream.key);
        if (derive) {
            ::crypto_kdf_derive_from_key(stream.key.data(), kKeyBytes, stream.subkey_id,
                                         stream.context, master_key.data());
        } else {
            ::randombytes_buf(stream.key.data(), kKeyBytes);
        }
    }
    if (derive) {
        OX_INFO("TcpControlServer: derived 3x 32-byte session keys from SaaS master (HKDF)");
    } else {
        OX_DEBUG("TcpControlServer: generated 3x 32-byte random session keys");
    }
}

std::string to_base64(const std::vector<uint8_t>& bytes) {
    constexpr int kVariant = sodium_base64_VARIANT_ORIGINAL;
    std::string text(sodium_base64_encoded_len(bytes.size(), kVariant), '\0');
    ::sodium_bin2base64(text.data(), text.size(), bytes.data(), bytes.size(), kVariant);
    text.pop_back();  // the terminating zero
    return text;
}

}  // namespace ox
