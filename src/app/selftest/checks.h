#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace ox::selftest {

/// Checks passed and failed since the run began. Main thread.
extern int32_t g_pass;
extern int32_t g_fail;

/// Prints and counts one result.
void check(bool passed, const char* description);

/// Prints something worth knowing about what was checked.
void note(const char* label, const std::string& value);

struct Group {
    const char* heading;
    void (*run)();
};

/// Runs the groups in order between title and result. `init_crypto` below 0 ends the run before the
/// first group. Returns the exit status: 0 when every check passed, else 1.
int run_groups(int (*init_crypto)(), std::span<const Group> groups);

}  // namespace ox::selftest
