#include "app/selftest/selftest.h"

#include <sodium.h>

#include <array>

#include "app/selftest/groups.h"

namespace ox {

int run_selftest() {
    using namespace selftest;
    constexpr std::array<Group, 7> kGroups{{
        {"[1] packetize/encrypt/depacketize/decrypt roundtrip", check_media_packets},
        {"[2] libsodium KDF determinism", check_session_keys},
        {"[3] input packet wire roundtrip", check_input_packets},
        {"[4] synthetic capture → H.264 encode → packetize", check_video_chain},
        {"[5] P6 audio parity: nonce separation + 4:2 roundtrip", check_audio_parity},
        {"[6] P5 RFI: wire, host policy, backend gate", check_reference_invalidation},
        {"[7] low-delay audio: RESTRICTED_LOWDELAY, CBR, 5 ms frames", check_low_delay_audio},
    }};
    return run_groups(::sodium_init, kGroups);
}

}  // namespace ox
