#pragma once

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>

#include <algorithm>
#include <array>
#include <string>

#include "base/unique_fd.h"

namespace ox::test {

/// A pseudo-terminal: reads what a program writes to `path()`.
class PseudoTerminal {
  public:
    PseudoTerminal(int columns, int rows) {
        int ends[2] = {-1, -1};
        std::array<char, 64> name{};
        ::openpty(&ends[0], &ends[1], name.data(), nullptr, nullptr);
        user.reset(ends[0]);
        program.reset(ends[1]);  // keeps the terminal open after the program's end
        path_ = name.data();
        for (const int fd : ends)
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        resize(columns, rows);
    }

    [[nodiscard]] const std::string& path() const { return path_; }

    void resize(int columns, int rows) const {
        const winsize size{.ws_row = static_cast<unsigned short>(rows),
                           .ws_col = static_cast<unsigned short>(columns),
                           .ws_xpixel = 0,
                           .ws_ypixel = 0};
        ::ioctl(user.get(), TIOCSWINSZ, &size);
    }

    /// Output since the previous call.
    [[nodiscard]] std::string read_all() const {
        std::string text;
        std::array<char, 4096> buffer;
        for (ssize_t n = 0; (n = ::read(user.get(), buffer.data(), buffer.size())) > 0;)
            text.append(buffer.data(), static_cast<size_t>(n));
        return text;
    }

    [[nodiscard]] termios modes() const {
        termios now{};
        ::tcgetattr(program.get(), &now);
        return now;
    }

    UniqueFd user;     ///< the window's end
    UniqueFd program;  ///< the program's end

  private:
    std::string path_;
};

inline bool same_modes(const termios& a, const termios& b) {
    return a.c_iflag == b.c_iflag && a.c_oflag == b.c_oflag && a.c_lflag == b.c_lflag &&
           std::equal(std::begin(a.c_cc), std::end(a.c_cc), std::begin(b.c_cc));
}

}  // namespace ox::test
