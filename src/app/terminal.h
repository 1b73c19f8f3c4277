#pragma once

#include "tui/screen/screen.h"

namespace ox {

/// Call first: no other file may get the numbers of missing standard descriptors.
void reserve_standard_descriptors();

/// By `OX_TUI`, `TERM` and `COLORTERM` and whether standard output is a terminal.
tui::ColourMode terminal_colour_mode();

/// Whether `OX_CONSOLE_LOG` asks for the raw log in the terminal.
bool console_log_requested();

/// Opens the log file and fills the board's identity with it. False when it cannot be written.
bool open_log_and_identify();

/// What libraries print on standard error goes to the log file alone.
void redirect_stderr_to_log();

}  // namespace ox
