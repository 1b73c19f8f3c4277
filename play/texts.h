#pragma once

#include <SDL.h>

#include <optional>
#include <string>

#include "play/link.h"
#include "play/sound/sound_output.h"
#include "tui/board/localization.h"

// What the window says.

namespace ox::play {

/// The message for the middle of the window; empty while all is well.
std::string status_message(const LinkStatus& status, const std::string& host,
                           SteadyClock::time_point now, tui::Lang lang);

struct StatisticsView {
    SDL_Point picture{};
    const char* renderer = "";
    double shown_fps = 0;
    double age_ms = -1;  ///< of the picture on the screen; negative: unknown
    uint64_t dropped = 0;
    bool automatic_bitrate = false;
    std::optional<SoundStats> sound;  ///< nothing: without sound
    launcher::InputCounters input;
};
/// Several lines.
std::string statistics_text(const LinkStatus& status, const StatisticsView& view, tui::Lang lang);

}  // namespace ox::play
