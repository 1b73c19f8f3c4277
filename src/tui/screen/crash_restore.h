#pragma once

#include <termios.h>

#include <optional>
#include <string_view>

namespace ox::tui {

/// Gives the terminal back when a signal is about to end the process: for every catchable signal
/// whose effect would be that, there is a handler that does the restoring and then lets the signal
/// have its effect. One terminal at a time, process-wide. Not for concurrent use; the handlers may
/// run in any thread.
namespace crash_restore {

/// Sets the handlers. On such a signal `bytes` (which must live on) are written to `fd` without
/// waiting and, where given, `modes` are set on it. A handler that somebody else installed for a
/// fault (SIGSEGV and its like) is called afterwards; other signals that somebody handles are left
/// to him, now and when he installs his handler later.
void arm(int fd, std::string_view bytes, const std::optional<termios>& modes);

/// Takes back what `arm` did. True when no signal has restored the terminal meanwhile.
bool disarm();

/// False once a signal has restored the terminal: nothing more may be written to it.
bool armed();

}  // namespace crash_restore

}  // namespace ox::tui
