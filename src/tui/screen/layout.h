#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <vector>

#include "tui/board/board.h"
#include "tui/board/messages.h"
#include "tui/screen/frame.h"

namespace ox::tui {

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
extern const Glyphs kConsoleGlyphs;  ///< the few that every console font has

struct View {
    Size size{.columns = 80, .rows = 24};
    Lang lang = Lang::English;
    Host host = Host::Desktop;
    int64_t now_s = 0;  ///< system clock
    pid_t pid = 0;      ///< of the agent, shown so that the owner can signal it
    const Glyphs* glyphs = &kFullGlyphs;
};

/// As much detail as `view.size` has room for; link, session and alerts are given up last. Pure
/// except for the local time zone.
std::vector<Line> lay_out(const Snapshot& snapshot, const View& view);

}  // namespace ox::tui
