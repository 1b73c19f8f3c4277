#pragma once

#include <cstddef>
#include <vector>

#include "tui/screen/layout.h"

namespace ox::tui {

enum class AlertDetail : uint8_t { TitleAndText, Text, Title };

// Each part is at most `width` columns wide. All texts of `board` must be printable.

/// Three lines with the block-letter name; needs about 60 columns.
std::vector<Line> logo_header(const Snapshot& board, const View& view, int width);
Line header_line(const Snapshot& board, const View& view, int width);
/// The platform link and how long it has been in its state.
Line link_line(const Snapshot& board, const View& view, int width);
/// Nothing when there are none. `airy` puts empty lines between those with title and text.
std::vector<Line> alert_lines(const Snapshot& board, const View& view, int width,
                              AlertDetail detail, bool airy);
/// The newest `count` events under a heading, the newest first; nothing when there are none.
std::vector<Line> event_lines(const Snapshot& board, const View& view, int width, size_t count);
/// Where the log is and how to stop, in `rows` lines (0 to 2).
std::vector<Line> footer_lines(const Snapshot& board, const View& view, int width, int rows);

}  // namespace ox::tui
