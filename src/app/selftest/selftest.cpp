#include "app/selftest/selftest.h"

#include <sodium.h>

#include <cstdio>

#include "app/selftest/checks.h"

namespace ox {
namespace selftest {
namespace {

constexpr const char* kRule = "===========================";

int32_t g_passed = 0;
int32_t g_failed = 0;

// Flushed line by line: a crash must not lose the results before it.
void print_line(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

void check(bool passed, const char* description) {
    ++(passed ? g_passed : g_failed);
    print_line((passed ? "  PASS  " : "  FAIL  ") + std::string(description));
}

void note(const char* label, const std::string& value) {
    print_line("       " + std::string(label) + ": " + value);
}

int run_groups(int (*init_crypto)(), std::span<const Group> groups) {
    g_passed = 0;
    g_failed = 0;
    print_line("orvex-agent self-test");
    print_line(kRule);
    if (init_crypto() < 0) {
        print_line("  FAIL  libsodium init");
        return 1;
    }
    for (const Group& group : groups) {
        print_line(group.heading);
        group.run();
    }
    print_line(kRule);
    print_line(std::to_string(g_passed) + " passed, " + std::to_string(g_failed) + " failed");
    print_line(g_failed == 0 ? "SELFTEST PASS" : "SELFTEST FAIL");
    return g_failed == 0 ? 0 : 1;
}

}  // namespace selftest

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
