#pragma once

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <vterm.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace ox::test {

/// An independent terminal emulator (libvterm). Collects sequences unknown to it.
class TerminalModel {
  public:
    TerminalModel(int columns, int rows) : terminal_(vterm_new(rows, columns), vterm_free) {
        static VTermScreenCallbacks screen{};
        screen.settermprop = set_property;
        static Fallbacks unknown{};
        unknown.control = [](unsigned char control, void* self) { return note(self, control); };
        unknown.csi = [](const char*, const long*, int, const char*, char command, void* self) {
            return note(self, command);
        };
        vterm_set_utf8(terminal_.get(), 1);
        vterm_screen_set_callbacks(screen_, &screen, this);
        vterm_screen_set_unrecognised_fallbacks(screen_, &unknown, this);
        vterm_screen_enable_altscreen(screen_, 1);
        vterm_screen_reset(screen_, 1);
    }
    TerminalModel(const TerminalModel&) = delete;
    TerminalModel& operator=(const TerminalModel&) = delete;

    void feed(std::string_view bytes) {
        vterm_input_write(terminal_.get(), bytes.data(), bytes.size());
    }
    void resize(int columns, int rows) { vterm_set_size(terminal_.get(), rows, columns); }

    /// One cell; empty for blanks and the right half of a wide character.
    [[nodiscard]] VTermScreenCell at(int column, int row) const {
        VTermScreenCell cell{};
        vterm_screen_get_cell(screen_, {.row = row, .col = column}, &cell);
        const bool blank = cell.chars[0] == ' ' || cell.chars[0] == 0;
        return blank || cell.chars[0] == UINT32_MAX ? VTermScreenCell{} : cell;
    }
    /// All rows, with newlines in between.
    [[nodiscard]] std::string text() const {
        VTermRect all{};
        vterm_get_size(terminal_.get(), &all.end_row, &all.end_col);
        std::string text(vterm_screen_get_text(screen_, nullptr, 0, all), '\0');
        vterm_screen_get_text(screen_, text.data(), text.size(), all);
        return text;
    }
    [[nodiscard]] bool alternate_screen() const { return alternate_; }
    [[nodiscard]] bool cursor_visible() const { return cursor_visible_; }
    /// Queries the terminal's mode.
    [[nodiscard]] bool wraps() {
        feed("\x1B[?7$p");
        std::array<char, 16> answer{};
        vterm_output_read(terminal_.get(), answer.data(), answer.size());
        return std::string_view(answer.data()) == "\x1B[?7;1$y";
    }
    /// Unknown control characters, and the last letters of unknown sequences.
    [[nodiscard]] const std::string& unknown() const { return unknown_; }

  private:
#if VTERM_VERSION_MAJOR == 0 && VTERM_VERSION_MINOR < 3
    using Fallbacks = VTermParserCallbacks;
#else
    using Fallbacks = VTermStateFallbacks;
#endif

    static int set_property(VTermProp property, VTermValue* value, void* self) {
        auto& model = *static_cast<TerminalModel*>(self);
        if (property == VTERM_PROP_ALTSCREEN) model.alternate_ = value->boolean != 0;
        if (property == VTERM_PROP_CURSORVISIBLE) model.cursor_visible_ = value->boolean != 0;
        return 1;
    }
    static int note(void* self, int unknown) {
        static_cast<TerminalModel*>(self)->unknown_ += static_cast<char>(unknown);
        return 1;
    }

    std::unique_ptr<VTerm, void (*)(VTerm*)> terminal_;
    VTermScreen* screen_ = vterm_obtain_screen(terminal_.get());
    bool alternate_ = false;
    bool cursor_visible_ = true;
    std::string unknown_;
};

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
