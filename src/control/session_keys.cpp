#include "control/session_keys.h"

#include <sodium.h>

#include <string>
#include <string_view>

#include "log/log.h"

namespace ox {
namespace {
constexpr size_t kKeyBytes = 32;
}  // namespace

void SessionKeySet::generate(std::span<const uint8_t> master_key) {
    struct Stream {
        Secret& key;
        uint64_t subkey_id;
        const char* context;  ///< crypto_kdf_CONTEXTBYTES are read
    };
    const Stream streams[] = {
        {video_key, 1, "oxvideo1"}, {audio_key, 2, "oxaudio1"}, {input_key, 3, "oxinput1"}};
    const bool derive = master_key.size() == crypto_kdf_KEYBYTES;
    for (const auto& stream : streams) {
        stream.key.resize(kKeyBytes);
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

// Written by hand: no value needs escaping, and no copy of a key is left in freed memory.
Secret make_session_ready(const SessionKeySet& keys, uint32_t granted_caps) {
    Secret line;
    line.reserve(256);
    const auto append_key = [&line](std::string_view prefix, const Secret& key) {
        line.append(prefix);
        line.append(to_base64(key).text());
    };
    append_key(R"({"audio_key":")", keys.audio_key);
    line.append(R"(","caps":)");
    line.append(std::to_string(granted_caps));
    append_key(R"(,"input_key":")", keys.input_key);
    append_key(R"(","type":"session_ready","video_key":")", keys.video_key);
    line.append(R"("})");
    return line;
}

Secret to_base64(std::span<const uint8_t> bytes) {
    constexpr int kVariant = sodium_base64_VARIANT_ORIGINAL;
    Secret text(sodium_base64_encoded_len(bytes.size(), kVariant));
    ::sodium_bin2base64(reinterpret_cast<char*>(text.data()), text.size(), bytes.data(),
                        bytes.size(), kVariant);
    text.resize(text.size() - 1);  // the terminating zero
    return text;
}

}  // namespace ox
