#include "app/selftest/checks.h"

#include <cstdio>

namespace ox::selftest {

int32_t g_pass = 0;
int32_t g_fail = 0;

namespace {

constexpr const char* kRule = "===========================";

// Line by line: what was found out before a crash is worth reading.
void print_line(const std::string& line) {
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

}  // namespace

void check(bool passed, const char* description) {
    ++(passed ? g_pass : g_fail);
    print_line((passed ? "  PASS  " : "  FAIL  ") + std::string(description));
}

void note(const char* label, const std::string& value) {
    print_line("       " + std::string(label) + ": " + value);
}

int run_groups(int (*init_crypto)(), std::span<const Group> groups) {
    g_pass = 0;
    g_fail = 0;
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
    print_line(std::to_string(g_pass) + " passed, " + std::to_string(g_fail) + " failed");
    print_line(g_fail == 0 ? "SELFTEST PASS" : "SELFTEST FAIL");
    return g_fail == 0 ? 0 : 1;
}

}  // namespace ox::selftest
