#include "tui/screen/styled_line.h"

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

}  // namespace ox::tui
