#pragma once

#include <vector>

#include "tui/screen/layout.h"

namespace ox::tui {

struct CardPlan {
    bool box = true;      ///< with a frame around
    bool padded = true;   ///< with empty lines inside the frame
    bool airy = true;     ///< with empty lines between the groups
    int graph_rows = 1;   ///< height of the bit rate's graph; 0: measurements without graphs
    bool details = true;  ///< more than the headline

    bool operator==(const CardPlan&) const = default;
};

/// Headline, format, measurements; or what it waits for. All texts of `board` must be printable.
std::vector<Line> session_card(const Snapshot& board, const View& view, int width,
                               const CardPlan& plan);

}  // namespace ox::tui
