#pragma once

#include <cstdint>
#include <string>

#include "tui/board/board.h"
#include "tui/board/board_texts.h"

namespace ox::tui::screen_texts {

/// The one of two texts that `lang` asks for.
inline const char* in(Lang lang, const char* english, const char* russian) {
    return lang == Lang::Russian ? russian : english;
}

/// One line about the platform link.
const char* link(LinkState link, Lang lang);

/// Headline of the session card, in capitals.
const char* session_title(const Snapshot& snapshot, Lang lang);
/// What the owner has to know of the picture; empty when it is fine.
const char* picture_hint(PictureState picture, Lang lang);
/// What the owner may want to know or do while no picture is streamed.
std::string session_hint(const Snapshot& snapshot, Lang lang);
/// "Holding the session for 42 s more".
std::string holding(int64_t seconds, Lang lang);

/// "7:05" or "1:07:05".
std::string stopwatch(int64_t seconds);
/// Local time of day as "HH:MM:SS".
std::string time_of_day(int64_t time_s);
/// A non-negative number with a fixed count of decimals and the language's decimal mark; an em
/// dash for a negative or impossible one.
std::string number(double value, int decimals, Lang lang);

}  // namespace ox::tui::screen_texts
