#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <vector>

#include "tui/board/board.h"
#include "tui/board/board_texts.h"
#include "tui/screen/frame.h"
#include "tui/screen/styled_line.h"

namespace ox::tui {

/// The drawing characters of a terminal's font, each one column wide.
struct Glyphs {
    const char* corners[4];  ///< top left, top right, bottom left, bottom right
    const char* horizontal;
    const char* vertical;
    const char* dot;        ///< state marks
    const char* small_dot;  ///< marks in lists
    const char* alert;
    const char* meter_full;
    const char* meter_empty;
    /// Rising bars, from an empty place to a full one.
    std::array<const char*, 9> bars;
};
extern const Glyphs kFullGlyphs;
extern const Glyphs kConsoleGlyphs;  ///< of the few that every console font has

/// What the picture depends on besides the board.
struct View {
    Size size{.columns = 80, .rows = 24};
    Lang lang = Lang::English;
    Host host = Host::Desktop;
    int64_t now_s = 0;  ///< system clock
    pid_t pid = 0;      ///< of the agent; told to the owner, who may want to signal it
    const Glyphs* glyphs = &kFullGlyphs;
};

/// The picture of the board: at most `view.size.rows` lines, none wider than `view.size.columns`.
/// Shows as much detail as there is room for; link, session and alerts go last. Pure but for the
/// time zone, in which the clock is shown. Any thread may call.
std::vector<Line> lay_out(const Snapshot& snapshot, const View& view);

}  // namespace ox::tui
