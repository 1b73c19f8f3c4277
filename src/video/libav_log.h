#pragma once

namespace ox {

/// Sends libav's own warnings and errors to the log, at level DEBUG, instead of to standard error.
/// Process-wide; later calls do nothing.
void route_libav_log();

}  // namespace ox
