#pragma once

#include <termios.h>

#include <csignal>
#include <optional>
#include <string_view>

#include "tui/screen/frame.h"

namespace ox::tui {

/// Puts a terminal into full-screen mode for its lifetime: no echo, no line editing, Ctrl+C still a
/// signal, Ctrl+Z and Ctrl+S without effect (a suspended agent would freeze the player's stream).
/// Input is discarded. Also arms `crash_restore`. Does nothing when it is not a terminal.
///
/// Construct and destroy in the same thread, before other threads start: they inherit the signal
/// mask that it sets to learn of size changes without a handler, which would interrupt system
/// calls.
class TerminalSession {
  public:
    explicit TerminalSession(int fd);
    ~TerminalSession();
    TerminalSession(const TerminalSession&) = delete;
    TerminalSession& operator=(const TerminalSession&) = delete;

    /// Write first: alternate screen, cursor hidden, no wrapping (xterm control sequences).
    static std::string_view enter_bytes();
    /// Write last. Also terminates an incomplete sequence.
    static std::string_view leave_bytes();

    /// True when the content may be damaged: the terminal has changed its size, or the process was
    /// stopped and continued. Sets the modes again where needed.
    bool was_disturbed();

    /// True once a fatal signal has restored the terminal: nothing more may be written to it.
    [[nodiscard]] bool is_lost() const;

    /// The terminal's size; 80x24 when it is unknown.
    [[nodiscard]] Size size() const;

  private:
    void set_modes();

    int fd_;
    bool is_armed_ = false;
    sigset_t watched_{};
    sigset_t old_mask_{};
    std::optional<termios> old_modes_;
};

}  // namespace ox::tui
