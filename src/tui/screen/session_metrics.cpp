#include "tui/screen/session_metrics.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "base/text.h"

namespace ox::tui {
namespace {

constexpr Style kDim{.tone = Tone::Dim};

constexpr int kSteps = 8;  // heights of a bar within one row
// Graphs of one row stand below each other and must not touch.
constexpr int kMaxStepsOfOneRow = 6;

// Height of a bar in steps. Every measurement is visible, a zero too.
int height_of(float value, float top, int rows) {
    if (!(value >= 0.0F)) return 0;
    const int tallest = rows == 1 ? kMaxStepsOfOneRow : rows * kSteps;
    if (!(top > 0.0F) || value >= top) return value > 0.0F ? tallest : 1;
    return std::max(1, static_cast<int>(std::lround(value / top * static_cast<float>(tallest))));
}

// One column of a graph. A negative value is a gap.
struct GraphPoint {
    float value = -1.0F;
    Tone tone = Tone::Accent;
};

// Bars from 0 up to `top`, the newest at the right edge, older ones cut off on the left. Returns
// `rows` lines, the upper first, each `columns` wide.
std::vector<Line> bar_graph(const std::vector<GraphPoint>& points, float top, int columns, int rows,
                            const Glyphs& glyphs) {
    std::vector<Line> lines(static_cast<size_t>(std::max(rows, 0)));
    if (columns < 1) return lines;
    const auto wide = static_cast<size_t>(columns);
    const size_t count = std::min(points.size(), wide);
    for (int row = 0; row < rows; ++row) {
        Line& line = lines[static_cast<size_t>(row)];
        const int floor = (rows - 1 - row) * kSteps;
        // Columns without a measurement show a base line in the lowest row.
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

// One measured quantity and how its values are rated.
struct Quantity {
    Text label;
    Text unit;
    int decimals;
    double value;
    float StreamMetrics::*reading;
    float min_top;  ///< lowest value at the top of the graph
    Tone (*tone)(float value, float expected);
    float expected = 0.0F;
};

Tone no_rating(float /*value*/, float /*expected*/) {
    return Tone::Accent;
}
Tone rate_tone(float fps, float expected) {
    if (fps < 0.0F || fps >= 0.9F * expected) return Tone::Accent;
    return fps >= 0.6F * expected ? Tone::Warn : Tone::Bad;
}
Tone round_trip_tone(float ms, float /*expected*/) {
    if (ms < 60.0F) return Tone::Accent;
    return ms < 150.0F ? Tone::Warn : Tone::Bad;
}
Tone loss_tone(float percent, float /*expected*/) {
    if (percent < 0.5F) return Tone::Accent;
    return percent < 2.0F ? Tone::Warn : Tone::Bad;
}

std::vector<Quantity> quantities(const SessionView& session) {
    const auto expected_fps = static_cast<float>(session.fps);
    return {
        {{"Bit rate", "Битрейт"},
         {"Mbit/s", "Мбит/с"},
         1,
         session.measured_mbps,
         &StreamMetrics::mbps,
         1.0F,
         no_rating},
        {{"Frame rate", "Кадры"},
         {"fps", "кадр/с"},
         1,
         session.measured_fps,
         &StreamMetrics::fps,
         std::max(expected_fps, 1.0F),
         rate_tone,
         expected_fps},
        {{"Round trip", "Задержка"},
         {"ms", "мс"},
         session.rtt_ms < 10 ? 1 : 0,
         session.rtt_ms,
         &StreamMetrics::rtt_ms,
         40.0F,
         round_trip_tone},
        {{"Loss", "Потери"},
         {"%", "%"},
         1,
         session.loss_pct,
         &StreamMetrics::loss_pct,
         4.0F,
         loss_tone},
    };
}

Style value_style(const Quantity& q) {
    const Tone tone = q.tone(static_cast<float>(q.value), q.expected);
    return {.tone = tone == Tone::Accent ? Tone::Text : tone, .bold = true};
}

// Label, value, unit and graph, each in its column.
std::vector<Line> metric_rows(const Quantity& q, const SessionView& session, const View& view,
                              int width, int rows) {
    constexpr int kLabel = 12;
    constexpr int kValue = 6;
    constexpr int kUnit = 9;
    const std::string value = number(q.value, q.decimals, view.lang);
    Line line(q.label.in(view.lang), kDim);
    line.pad_to(kLabel + std::max(0, kValue - text::width(value)));
    line.add(value, value_style(q)).add(" ").add(q.unit.in(view.lang), kDim);
    line.pad_to(kLabel + kValue + kUnit);

    const int columns = width - line.width();
    if (columns < 8) return {line};
    std::vector<GraphPoint> points;
    float top = q.min_top;
    for (const StreamMetrics& metrics : session.history) {
        const float reading = metrics.*q.reading;
        points.push_back({reading, q.tone(reading, q.expected)});
        top = std::max(top, reading);
    }
    std::vector<Line> lines;
    for (const Line& part : bar_graph(points, top, columns, rows, *view.glyphs)) {
        lines.push_back(line.add(part));
        line = Line().pad_to(kLabel + kValue + kUnit);
    }
    return lines;
}

}  // namespace

std::vector<Line> metric_graphs(const SessionView& session, const View& view, int width,
                                int bit_rate_rows, bool airy) {
    std::vector<Line> lines;
    for (const Quantity& q : quantities(session)) {
        const int wanted = q.reading == &StreamMetrics::mbps ? bit_rate_rows : 1;
        const std::vector<Line> rows = metric_rows(q, session, view, width, wanted);
        lines.insert(lines.end(), rows.begin(), rows.end());
        if (airy && rows.size() > 1) lines.emplace_back();
    }
    return lines;
}

std::vector<Line> metric_summary(const SessionView& session, const View& view, int width) {
    std::vector<Line> items;
    for (const Quantity& q : quantities(session)) {
        if (q.value < 0) continue;
        items.push_back(Line(number(q.value, q.decimals, view.lang), value_style(q))
                            .add(std::string("\u00A0") + q.unit.in(view.lang), kDim));
        if (q.reading == &StreamMetrics::loss_pct) {
            items.back().add(Text{" loss", " потерь"}.in(view.lang), kDim);
        }
    }
    return flow(items, width);
}

}  // namespace ox::tui
