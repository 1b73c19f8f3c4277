// The first line at the control port, before authentication.

#include "control/auth_line.h"
#include "control/udp_destination.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string line(reinterpret_cast<const char*>(data), size);
    ox::AuthMessage message;
    if (const auto error = ox::parse_auth_message(line, message)) {
        OX_FUZZ_REQUIRE(error->text.size() < 4096 + 2 * size);
        return 0;
    }
    for (const char* peer : {"10.0.0.5", "8.8.4.4", ""}) {
        ox::judge_udp_override(message.udp_ip, peer);
        ox::choose_udp_destination(message.udp_ip, peer);
    }
    // No known token has this hash.
    OX_FUZZ_REQUIRE(!ox::token_matches(message.token.text(), std::string(64, '0')));
    return 0;
}
