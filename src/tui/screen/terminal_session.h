#pragma once

#include <termios.h>

#include <csignal>
#include <optional>
#include <string_view>

#include "tui/screen/frame.h"

namespace ox::tui {

/// Keeps a terminal in the state that a full-screen picture needs, from construction to
/// destruction: no echo, no line editing, typed Ctrl+C still a signal, Ctrl+Z and Ctrl+S without
/// effect (a suspended agent would leave its player alone). What is typed meanwhile is thrown
/// away. Also arms `crash_restore`. Not a terminal: nothing of this happens.
///
/// Construct and destroy in the same thread, before the threads that write to the terminal start;
/// they inherit its signal mask, by which changes of the terminal's size are noticed without a
/// handler that would cut system calls short.
class TerminalSession {
  public:
    /// `fd` is borrowed.
    explicit TerminalSession(int fd);
    ~TerminalSession();
    TerminalSession(const TerminalSession&) = delete;
    TerminalSession& operator=(const TerminalSession&) = delete;

    /// To be written first: alternate screen, cursor hidden, no wrapping (xterm control sequences).
    static std::string_view enter_bytes();
    /// To be written last. Also ends a sequence that was cut short.
    static std::string_view leave_bytes();

    /// True when the picture may have been damaged: the terminal has changed its size, or the
    /// process was stopped and goes on. Sets the modes again where that is needed.
    bool was_disturbed();

    /// True once a fatal signal has given the terminal back: nothing more may be written to it.
    [[nodiscard]] bool is_lost() const;

    /// The terminal's size; 80x24 when it is unknown.
    [[nodiscard]] Size size() const;

  private:
    void set_modes();

    int fd_;
    bool guarded_ = false;
    sigset_t watched_{};
    sigset_t old_mask_{};
    std::optional<termios> old_modes_;
};

}  // namespace ox::tui
