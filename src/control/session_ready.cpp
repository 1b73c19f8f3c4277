#include "control/session_ready.h"

#include "control/wipe.h"

namespace ox {

// Written by hand: no value needs escaping, and no copy of a key is left in freed memory.
std::string make_session_ready(const SessionKeySet& keys, uint32_t granted_caps) {
    std::string text;
    text.reserve(256);
    const auto append_key = [&text](const char* prefix, const std::vector<uint8_t>& key) {
        std::string encoded = to_base64(key);
        text.append(prefix).append(encoded);
        wipe(encoded);
    };
    append_key(R"({"audio_key":")", keys.audio_key);
    text.append(R"(","caps":)").append(std::to_string(granted_caps));
    append_key(R"(,"input_key":")", keys.input_key);
    append_key(R"(","type":"session_ready","video_key":")", keys.video_key);
    text.append(R"("})");
    return text;
}

}  // namespace ox
