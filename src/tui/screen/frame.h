#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ox::tui {

/// The role of a piece of text; the palette maps it to a colour.
enum class Tone : uint8_t {
    Text,    ///< the terminal's own colour
    Dim,     ///< labels and older entries
    Faint,   ///< rules and frames
    Accent,  ///< graphs
    Good,
    Warn,
    Bad,
    Logo,
};

struct Style {
    Tone tone = Tone::Text;
    bool bold = false;
    uint8_t shade = 0;  ///< 0..255, position in the logo's gradient

    bool operator==(const Style&) const = default;
};

struct Span {
    std::string text;
    Style style;
};

/// One line of styled text.
class Line {
  public:
    Line() = default;
    Line(std::string_view text, Style style) { add(text, style); }

    Line& add(std::string_view text, Style style = {});
    Line& add(const Line& other);
    Line& pad_to(int column);

    /// In terminal columns.
    [[nodiscard]] int width() const { return width_; }
    [[nodiscard]] bool empty() const { return spans_.empty(); }
    [[nodiscard]] const std::vector<Span>& spans() const { return spans_; }
    /// Truncated to at most `max` columns, with an ellipsis when something was cut.
    [[nodiscard]] Line clipped(int max) const;

  private:
    std::vector<Span> spans_;
    int width_ = 0;
};

/// `left` and `right` at the two edges of `width` columns. When they do not fit with a column
/// between them, `left` is truncated, down to `least_left` columns; then `right` is left out.
Line spread(const Line& left, const Line& right, int width, int least_left = 12);

/// `items` side by side with a separator, in as many lines of `width` columns as it takes.
std::vector<Line> flow(const std::vector<Line>& items, int width);

struct Size {
    int columns = 0;
    int rows = 0;

    bool operator==(const Size&) const = default;
};

/// One cell of the terminal. `cp` is 0 in the right half of a wide character.
struct Cell {
    char32_t cp = U' ';
    char32_t mark = 0;  ///< a combining mark, 0 for none
    Style style;

    bool operator==(const Cell&) const = default;
};

/// The whole terminal, without control characters or anything outside its edges.
class Frame {
  public:
    /// Empty. `size` is at least 1x1.
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
