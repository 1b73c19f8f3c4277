#pragma once

#include <string>

#include "tui/screen/frame.h"
#include "tui/screen/palette.h"

namespace ox::tui {

/// What to send to a terminal that shows `shown`, so that it shows `wanted`, of the same size:
/// cursor moves, styles and the changed characters (ECMA-48). Empty when nothing changed. Leaves
/// the style reset; the cursor may be anywhere. Needs automatic wrapping off.
std::string paint_changes(const Frame& shown, const Frame& wanted, ColourMode mode);

/// Same for a terminal that shows anything: clears it first.
std::string paint_all(const Frame& wanted, ColourMode mode);

}  // namespace ox::tui
