#pragma once

namespace ox {

/// Share of datagrams to lose on purpose, in percent: a plain decimal number of 1 to 99. Null and
/// any other text mean 0.
int parse_drop_percent(const char* text);

/// Decides by chance whether the datagram at hand is to be lost, for trying out recovery. The share
/// comes from `OX_DEBUG_DROP_PCT`, read at the first call in the process. Any thread may call.
bool draw_debug_drop();

}  // namespace ox
