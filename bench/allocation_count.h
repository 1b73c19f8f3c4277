#pragma once

#include <cstdint>

namespace ox::bench {

/// Calls of operator new in this process so far, so that a path that must not allocate can show it.
uint64_t allocation_count();

}  // namespace ox::bench
