#pragma once

#include <cstdint>
#include <string>

namespace ox::tui {

/// Local time of day as "HH:MM"; `time_s` is in seconds of the system clock. Any thread may call.
std::string clock_text(int64_t time_s);

}  // namespace ox::tui
