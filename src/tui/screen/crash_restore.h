#pragma once

#include <termios.h>

#include <optional>
#include <string_view>

namespace ox::tui {

/// Restores the terminal when a catchable signal is about to end the process, and lets it take
/// effect. One terminal, process-wide. Not for concurrent use; handlers run in any thread.
namespace crash_restore {

/// Installs the handlers. On such a signal `bytes` (not copied) are written to `fd` without waiting
/// and `modes`, if any, are set on it. An existing handler of a fault (SIGSEGV and the like) is
/// called afterwards; other signals that have a handler, now or later, are left to it.
void arm(int fd, std::string_view bytes, const std::optional<termios>& modes);

/// Undoes `arm`. False when a signal has already restored the terminal.
bool disarm();

/// False once a signal has restored the terminal: nothing more may be written to it.
bool armed();

}  // namespace crash_restore

}  // namespace ox::tui
