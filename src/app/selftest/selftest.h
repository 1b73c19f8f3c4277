#pragma once

namespace ox {

/// Checks, without a network, a display or a launcher, the formats and codec settings that the
/// agent shares with the launcher, and prints each result to standard output. Returns 0 when every
/// check passed, else 1. Changes and restores environment variables, so there must be no other
/// thread.
int run_selftest();

}  // namespace ox
