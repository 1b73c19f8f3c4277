#pragma once

#include <termios.h>

#include <csignal>
#include <optional>
#include <string_view>

#include "tui/screen/frame.h"

namespace ox::tui {

/// A terminal's full-screen mode: no echo or line editing, input discarded, Ctrl+C a signal, Ctrl+Z
/// and Ctrl+S without effect (a suspended agent would freeze the stream). Arms `crash_restore`.
/// Nothing happens without a terminal. Construct before other threads start, destroy in the same
/// one: they inherit the signal mask by which size changes come without a handler.
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

    /// Its size has changed, or the process was stopped and continued. Sets the modes again.
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
