#include "control/session_ready.h"

#include <string>
#include <string_view>

namespace ox {

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

}  // namespace ox
