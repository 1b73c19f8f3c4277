#pragma once

#include <vector>

#include "tui/screen/layout.h"

namespace ox::tui {

/// The stream's measurements with their history as graphs, `width` columns wide: bit rate (in
/// `bit_rate_rows` rows; with more than one, `airy` adds an empty line below), frame rate, round
/// trip and loss.
std::vector<Line> metric_graphs(const SessionView& session, const View& view, int width,
                                int bit_rate_rows, bool airy);

/// The same measurements side by side, without graphs.
std::vector<Line> metric_summary(const SessionView& session, const View& view, int width);

}  // namespace ox::tui
