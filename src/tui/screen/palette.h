#pragma once

#include <cstdint>
#include <string>

#include "tui/screen/styled_line.h"

namespace ox::tui {

/// How the terminal is used: one line per event, or the full screen in one of two palettes.
enum class ColourMode : uint8_t { Plain, Ansi, TrueColour };

/// The control sequence (ECMA-48 SGR) that makes what follows look like `style`, whatever came
/// before. Plain has no colours but keeps bold and dim apart.
std::string sgr(Style style, ColourMode mode);

}  // namespace ox::tui
