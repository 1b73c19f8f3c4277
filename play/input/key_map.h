#pragma once

#include <SDL_scancode.h>

#include <optional>

#include "launcher/client/wire_key.h"

namespace ox::play {

/// The key at a physical position, whatever the layout makes of it; nothing for positions without a
/// scan code of set 1.
std::optional<launcher::WireKey> wire_key_at(SDL_Scancode position);

}  // namespace ox::play
