#include "tui/screen/frame.h"

#include <algorithm>
#include <string>

#include "base/text.h"

namespace ox::tui {

Frame::Frame(Size size) : size_{std::max(size.columns, 1), std::max(size.rows, 1)} {
    cells_.resize(static_cast<size_t>(size_.columns) * static_cast<size_t>(size_.rows));
}

Frame::Frame(Size size, const std::vector<Line>& lines) : Frame(size) {
    const int count = std::min(size_.rows, static_cast<int>(lines.size()));
    for (int row = 0; row < count; ++row)
        draw(lines[static_cast<size_t>(row)], row);
}

void Frame::draw(const Line& line, int row) {
    int column = 0;
    for (const Span& span : line.spans()) {
        const std::string shown = text::printable(span.text);
        for (size_t at = 0; at < shown.size();) {
            const char32_t cp = text::next_cp(shown, at);
            const int wide = text::columns(cp);
            if (wide == 0) {
                if (column > 0) cells_[index(column - 1, row)].mark = cp;
                continue;
            }
            if (column + wide > size_.columns) return;
            // A space looks the same in every style, and so it is not painted anew for one.
            const Style style = cp == U' ' ? Style{} : span.style;
            cells_[index(column, row)] = {.cp = cp, .mark = 0, .style = style};
            if (wide == 2) cells_[index(column + 1, row)] = {.cp = 0, .mark = 0, .style = style};
            column += wide;
        }
    }
}

}  // namespace ox::tui
