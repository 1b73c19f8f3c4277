#include "tui/screen/graph.h"

#include <algorithm>
#include <cmath>

namespace ox::tui {
namespace {

constexpr int kSteps = 8;  // that a bar glyph can rise within its row
// Graphs that are one row high often stand below each other and must not grow together.
constexpr int kMostStepsOfOneRow = 6;

// Height of a bar in steps. A reading is always to be seen, a zero too.
int height_of(float value, float top, int rows) {
    if (!(value >= 0.0F)) return 0;
    const int most = rows == 1 ? kMostStepsOfOneRow : rows * kSteps;
    if (!(top > 0.0F) || value >= top) return value > 0.0F ? most : 1;
    return std::max(1, static_cast<int>(std::lround(value / top * static_cast<float>(most))));
}

}  // namespace

std::vector<Line> bar_graph(const std::vector<GraphPoint>& points, float top, int columns, int rows,
                            const Glyphs& glyphs) {
    std::vector<Line> lines(static_cast<size_t>(std::max(rows, 0)));
    if (columns < 1) return lines;
    const auto wide = static_cast<size_t>(columns);
    const size_t count = std::min(points.size(), wide);
    for (int row = 0; row < rows; ++row) {
        Line& line = lines[static_cast<size_t>(row)];
        const int floor = (rows - 1 - row) * kSteps;
        // Where no reading was made yet the lowest row shows a base line.
        const char* empty = floor == 0 ? glyphs.bars[1] : " ";
        for (size_t i = count; i < wide; ++i)
            line.add(empty, {.tone = Tone::Faint});
        for (size_t i = points.size() - count; i < points.size(); ++i) {
            const int height = height_of(points[i].value, top, rows);
            const auto step = static_cast<size_t>(std::clamp(height - floor, 0, kSteps));
            if (height == 0 && floor == 0) {
                line.add(empty, {.tone = Tone::Faint});
            } else {
                line.add(glyphs.bars.at(step), {.tone = points[i].tone});
            }
        }
    }
    return lines;
}

Line meter(double share, int columns, Tone tone, const Glyphs& glyphs) {
    const int full = static_cast<int>(std::lround(std::clamp(share, 0.0, 1.0) * columns));
    Line line;
    for (int i = 0; i < columns; ++i) {
        line.add(i < full ? glyphs.meter_full : glyphs.meter_empty,
                 {.tone = i < full ? tone : Tone::Faint});
    }
    return line;
}

}  // namespace ox::tui
