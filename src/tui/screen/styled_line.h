#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace ox::tui {

/// What a piece of text is for; the palette decides how it looks.
enum class Tone : uint8_t {
    Text,    ///< the terminal's own colour
    Dim,     ///< labels and what is not new
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
    uint8_t shade = 0;  ///< 0..255, place in the logo's run of colours

    bool operator==(const Style&) const = default;
};

struct Span {
    std::string text;
    Style style;
};

/// One line of the picture: pieces of text side by side. A plain value.
class Line {
  public:
    Line() = default;
    Line(std::string_view text, Style style) { add(text, style); }

    Line& add(std::string_view text, Style style = {});
    Line& add(const Line& other);
    /// Adds spaces up to column `column`.
    Line& pad_to(int column);

    /// In terminal columns.
    [[nodiscard]] int width() const { return width_; }
    [[nodiscard]] bool empty() const { return spans_.empty(); }
    [[nodiscard]] const std::vector<Span>& spans() const { return spans_; }
    /// Cut on the right to at most `max` columns, with an ellipsis when something was cut.
    [[nodiscard]] Line clipped(int max) const;

  private:
    std::vector<Span> spans_;
    int width_ = 0;
};

/// `left` and `right` at the two edges of `width` columns. When they do not fit with a column
/// between them, `left` is cut, down to `least_left` columns; after that `right` is left out.
Line spread(const Line& left, const Line& right, int width, int least_left = 12);

}  // namespace ox::tui
