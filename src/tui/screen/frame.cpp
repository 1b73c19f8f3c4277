#include "tui/screen/frame.h"

#include <algorithm>

#include "base/text.h"

namespace ox::tui {

Line& Line::add(std::string_view text, Style style) {
    if (text.empty()) return *this;
    if (!spans_.empty() && spans_.back().style == style) {
        spans_.back().text.append(text);
    } else {
        spans_.push_back({std::string(text), style});
    }
    width_ += text::width(text);
    return *this;
}

Line& Line::add(const Line& other) {
    for (const Span& span : other.spans_)
        add(span.text, span.style);
    return *this;
}

Line& Line::pad_to(int column) {
    if (column > width_) add(std::string(static_cast<size_t>(column - width_), ' '));
    return *this;
}

Line Line::clipped(int max) const {
    if (width_ <= max) return *this;
    Line line;
    for (const Span& span : spans_) {
        const int left = max - line.width_;
        const int wide = text::width(span.text);
        // The last column is for the ellipsis, as more follows.
        if (wide >= left) return line.add(text::clip(span.text + "  ", left), span.style);
        line.add(span.text, span.style);
    }
    return line;
}

Line spread(const Line& left, const Line& right, int width, int least_left) {
    const int for_left = width - right.width() - 1;
    if (right.empty() || for_left < std::min(left.width(), least_left)) return left.clipped(width);
    Line line = left.clipped(for_left);
    return line.pad_to(width - right.width()).add(right);
}

std::vector<Line> flow(const std::vector<Line>& items, int width) {
    std::vector<Line> lines;
    for (const Line& item : items) {
        if (!lines.empty() && lines.back().width() + 3 + item.width() <= width) {
            lines.back().add(" · ", {.tone = Tone::Faint}).add(item);
        } else {
            lines.push_back(item.clipped(width));
        }
    }
    return lines;
}

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
            // A space looks the same in every style: not a change to repaint.
            const Style style = cp == U' ' ? Style{} : span.style;
            cells_[index(column, row)] = {.cp = cp, .mark = 0, .style = style};
            if (wide == 2) cells_[index(column + 1, row)] = {.cp = 0, .mark = 0, .style = style};
            column += wide;
        }
    }
}

}  // namespace ox::tui
