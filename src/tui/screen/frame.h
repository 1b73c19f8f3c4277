#pragma once

#include <cstddef>
#include <vector>

#include "tui/screen/styled_line.h"

namespace ox::tui {

/// Size of a terminal.
struct Size {
    int columns = 0;
    int rows = 0;

    bool operator==(const Size&) const = default;
};

/// One place of the terminal. `cp` is 0 in the right half of a wide character.
struct Cell {
    char32_t cp = U' ';
    char32_t mark = 0;  ///< a combining mark on top, 0 for none
    Style style;

    bool operator==(const Cell&) const = default;
};

/// A picture of the terminal's whole content. Whatever the lines hold, a frame has nothing beyond
/// its edges and no character that a terminal would obey instead of showing it.
class Frame {
  public:
    /// An empty picture. `size` is at least 1x1.
    explicit Frame(Size size);
    Frame(Size size, const std::vector<Line>& lines);

    [[nodiscard]] Size size() const { return size_; }
    [[nodiscard]] const Cell& at(int column, int row) const { return cells_[index(column, row)]; }

  private:
    [[nodiscard]] size_t index(int column, int row) const {
        return static_cast<size_t>(row) * static_cast<size_t>(size_.columns) +
               static_cast<size_t>(column);
    }
    void draw(const Line& line, int row);

    Size size_;
    std::vector<Cell> cells_;
};

}  // namespace ox::tui
