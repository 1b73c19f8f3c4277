#pragma once

namespace ox {

/// Checks the formats and codec settings shared with the launcher, without network, display or
/// launcher, and prints the results. Returns 0 when all passed, else 1. Changes environment
/// variables: no other thread may exist.
int run_selftest();

}  // namespace ox
