#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ox::test {

/// A terminal as far as the console screen uses one: a grid of characters with their styles, moved
/// through by control sequences (ECMA-48, and xterm's private modes). What it does not know it
/// keeps for the test to complain about.
class TerminalModel {
  public:
    struct Cell {
        char32_t cp = U' ';  ///< 0 in the right half of a wide character
        char32_t mark = 0;
        std::string style;  ///< the SGR sequence in force; empty for a space

        bool operator==(const Cell&) const = default;
    };

    TerminalModel(int columns, int rows);

    /// Takes output of the program in pieces of any size.
    void feed(std::string_view bytes);
    /// What a window-size change does: the content is gone.
    void resize(int columns, int rows);
    /// From now on shows these characters two columns wide.
    void treat_as_wide(std::u32string_view characters) { wide_ = characters; }

    [[nodiscard]] const Cell& at(int column, int row) const {
        return cells_[static_cast<size_t>(row * columns_ + column)];
    }
    /// One row as UTF-8.
    [[nodiscard]] std::string row(int row) const;
    /// All rows, each with a newline.
    [[nodiscard]] std::string text() const;

    [[nodiscard]] bool alternate_screen() const { return alternate_; }
    [[nodiscard]] bool cursor_visible() const { return cursor_visible_; }
    [[nodiscard]] bool wraps() const { return wraps_; }
    /// Something was written beyond the right edge since the screen was last cleared.
    [[nodiscard]] bool overran() const { return overran_; }
    /// Control characters and sequences that it does not know, one after the other.
    [[nodiscard]] const std::string& unknown() const { return unknown_; }

  private:
    // Takes one character or sequence from the front of what is pending; false when it is cut off.
    bool take_one();
    void control(std::string_view parameters, char final);
    void put(char32_t cp);
    void set(int column, const Cell& cell);

    int columns_;
    int rows_;
    std::vector<Cell> cells_;
    std::string pending_;
    std::u32string wide_;
    std::string style_ = "\x1B[0m";
    int column_ = 0;
    int row_ = 0;
    bool alternate_ = false;
    bool cursor_visible_ = true;
    bool wraps_ = true;
    bool overran_ = false;
    std::string unknown_;
};

}  // namespace ox::test
