#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>

#include "log/log.h"

/// Ends the run like a crash: an invariant does not hold.
#define OX_FUZZ_REQUIRE(condition)      \
    do {                                \
        if (!(condition)) std::abort(); \
    } while (false)

// Without the attribute the compiler leaves it out: nothing in the target itself calls it.
extern "C" __attribute__((used)) inline int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    ox::log_level() = static_cast<int>(ox::LogLevel::ERROR) + 1;
    return 0;
}
