#pragma once

#include <cstdint>
#include <string>

// What the owner reads, in English and Russian: the choice of the language, times and numbers.

namespace ox::tui {

enum class Lang : uint8_t { English = 0, Russian = 1 };

/// The language of `OX_LANG`, `LC_ALL`, `LC_MESSAGES` or `LANG`, whichever is set first.
Lang os_language();

/// Russian texts spell their no-break spaces as \u00A0, to tell them from ordinary ones.
struct Text {
    const char* english;
    const char* russian;

    [[nodiscard]] const char* in(Lang lang) const {
        return lang == Lang::Russian ? russian : english;
    }
};

/// Local time of day as "HH:MM" or "HH:MM:SS"; `time_s` is in seconds of the system clock.
std::string clock_text(int64_t time_s);
std::string clock_text_with_seconds(int64_t time_s);
/// "59 s", "12 min", "1 h 05 min".
std::string duration_words(int64_t seconds, Lang lang);
/// "7:05" or "1:07:05".
std::string stopwatch(int64_t seconds);
/// With the language's decimal mark; an em dash for a negative or impossible value.
std::string number(double value, int decimals, Lang lang);

}  // namespace ox::tui
