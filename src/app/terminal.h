#pragma once

#include "tui/screen/screen.h"

namespace ox {

/// Opens /dev/null in place of missing standard descriptors, so that no other file gets their
/// numbers. To be called first.
void reserve_standard_descriptors();

/// By `OX_TUI`, `TERM` and `COLORTERM` and whether standard output is a terminal.
tui::ColourMode terminal_colour_mode();

/// Whether `OX_CONSOLE_LOG` asks for the raw log in the terminal.
bool console_log_requested();

/// Opens the log file and fills the board's identity with it. False when it cannot be written.
bool open_log_and_identify();

/// Leaves the terminal to the screen: the log and what libraries print on standard error go to the
/// log file alone.
void redirect_stderr_to_log();

}  // namespace ox
