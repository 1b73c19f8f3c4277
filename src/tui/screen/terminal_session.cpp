#include "tui/screen/terminal_session.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "tui/screen/crash_restore.h"

namespace ox::tui {
namespace {

constexpr Size kUnknownSize{.columns = 80, .rows = 24};
// Bounds the time and memory of a repaint; no larger terminal is readable.
constexpr int kMaxColumns = 500;
constexpr int kMaxRows = 300;

// A background process must not change the modes of the foreground shell.
bool is_in_foreground(int fd) {
    const pid_t group = ::tcgetpgrp(fd);
    return group < 0 || group == ::getpgrp();
}

}  // namespace

TerminalSession::TerminalSession(int fd) : fd_(fd) {
    ::sigemptyset(&watched_);
    ::sigaddset(&watched_, SIGWINCH);
    ::sigaddset(&watched_, SIGCONT);
    sigset_t blocked = watched_;
    // With "stty tostop" a write from the background would stop the agent.
    ::sigaddset(&blocked, SIGTTOU);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &old_mask_);

    termios modes{};
    if (is_in_foreground(fd_) && ::tcgetattr(fd_, &modes) == 0) old_modes_ = modes;
    is_armed_ = ::isatty(fd_) == 1;
    if (is_armed_) crash_restore::arm(fd_, leave_bytes(), old_modes_);
    set_modes();
}

TerminalSession::~TerminalSession() {
    crash_restore::disarm();
    if (old_modes_) ::tcsetattr(fd_, TCSANOW, &*old_modes_);
    if (old_modes_) ::tcflush(fd_, TCIFLUSH);
    const timespec at_once{};
    while (::sigtimedwait(&watched_, nullptr, &at_once) > 0) {
    }
    ::pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr);
}

std::string_view TerminalSession::enter_bytes() {
    return "\x1B[?1049h\x1B[?25l\x1B[?7l";
}

std::string_view TerminalSession::leave_bytes() {
    return "\x1B[0m\x1B[?7h\x1B[?25h\x1B[?1049l";
}

void TerminalSession::set_modes() {
    if (!old_modes_ || !is_in_foreground(fd_)) return;
    termios modes = *old_modes_;
    modes.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF);
    modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON);
    modes.c_cc[VSUSP] = _POSIX_VDISABLE;
    ::tcsetattr(fd_, TCSANOW, &modes);
}

bool TerminalSession::was_disturbed() {
    const timespec at_once{};
    bool disturbed = false;
    for (int number = 0; (number = ::sigtimedwait(&watched_, nullptr, &at_once)) > 0;) {
        disturbed = true;
        if (number == SIGCONT && !is_lost()) set_modes();
    }
    return disturbed;
}

bool TerminalSession::is_lost() const {
    return is_armed_ && !crash_restore::armed();
}

Size TerminalSession::size() const {
    winsize size{};
    if (::ioctl(fd_, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return kUnknownSize;
    }
    return {.columns = std::min<int>(size.ws_col, kMaxColumns),
            .rows = std::min<int>(size.ws_row, kMaxRows)};
}

}  // namespace ox::tui
