#pragma once

#include <deque>
#include <vector>

#include "tui/screen/layout.h"
#include "tui/screen/styled_line.h"

namespace ox::tui {

/// One column of a graph. A negative value is a gap.
struct GraphPoint {
    float value = -1.0F;
    Tone tone = Tone::Accent;
};

/// Bars from 0 up to `top`, the newest at the right edge; what does not fit goes on the left.
/// Returns `rows` lines, the upper first, each `columns` wide.
std::vector<Line> bar_graph(const std::vector<GraphPoint>& points, float top, int columns, int rows,
                            const Glyphs& glyphs);

/// A bar `columns` wide, of which `share` (0..1) is full.
Line meter(double share, int columns, Tone tone, const Glyphs& glyphs);

}  // namespace ox::tui
