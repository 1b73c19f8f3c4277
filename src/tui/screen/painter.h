#pragma once

#include <cstdint>
#include <string>

#include "tui/screen/frame.h"

namespace ox::tui {

/// One line per event, or the full screen in one of two palettes.
enum class ColourMode : uint8_t { Plain, Ansi, TrueColour };

/// ECMA-48 SGR, whatever was set before. Plain has no colours, only bold and dim.
std::string sgr(Style style, ColourMode mode);

/// The bytes (ECMA-48) that turn `shown` on a terminal into `wanted`, of the same size. Empty when
/// nothing changed. Resets the style at the end; needs automatic wrapping off.
std::string paint_changes(const Frame& shown, const Frame& wanted, ColourMode mode);

/// Same for a terminal with unknown content: clears it first.
std::string paint_all(const Frame& wanted, ColourMode mode);

}  // namespace ox::tui
