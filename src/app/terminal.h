#pragma once

#include "tui/screen/screen.h"

namespace ox {

/// Opens /dev/null in place of standard descriptors that the process was started without, so that
/// no file of ours gets their numbers. Call first of all.
void reserve_standard_descriptors();

/// What decides how the terminal is used.
struct TerminalEnvironment {
    const char* ox_tui = nullptr;     ///< `OX_TUI`
    const char* term = nullptr;       ///< `TERM`
    const char* colorterm = nullptr;  ///< `COLORTERM`
    bool stdout_is_terminal = false;
};

/// Reads the process's environment and standard output.
TerminalEnvironment terminal_environment();

tui::ColourMode choose_colour_mode(const TerminalEnvironment& environment);

/// True when `OX_CONSOLE_LOG` has a value that asks for the raw log in the terminal.
bool console_log_switch(const char* value);

/// Opens the log file and fills the board's identity with it. False when it cannot be written.
bool open_log_and_identify();

/// Hands the terminal to the screen: the log leaves it, and what libraries print on standard error
/// goes to the log file.
void redirect_stderr_to_log();

}  // namespace ox
