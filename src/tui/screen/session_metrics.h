#pragma once

#include <vector>

#include "tui/screen/layout.h"

namespace ox::tui {

/// The stream's measurements with their history as graphs; more than one row of bit rate may be
/// followed by an empty line (`airy`).
std::vector<Line> metric_graphs(const SessionView& session, const View& view, int width,
                                int bit_rate_rows, bool airy);

/// The same side by side, without graphs.
std::vector<Line> metric_summary(const SessionView& session, const View& view, int width);

}  // namespace ox::tui
