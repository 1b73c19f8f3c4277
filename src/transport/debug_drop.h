#pragma once

namespace ox {

/// Percentage of datagrams to drop on purpose: a decimal number of 1 to 99, else (or null) 0.
int parse_drop_percent(const char* text);

/// For tests of recovery: `OX_DEBUG_DROP_PCT`, read at the first call in the process. Any thread.
bool draw_debug_drop();

}  // namespace ox
