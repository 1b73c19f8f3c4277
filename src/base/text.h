#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Measuring and cutting UTF-8 text in terminal columns. Pure functions; malformed bytes read as
/// U+FFFD, nothing fails, any thread may call.
namespace ox::text {

/// Reads the code point at byte `index` and moves `index` past it. `index` must be inside `s`.
char32_t next_cp(std::string_view s, size_t& index);
/// Appends the UTF-8 form of `cp`.
void append_cp(std::string& out, char32_t cp);
/// Width of one code point in terminal columns: 0, 1 or 2.
int columns(char32_t cp);
/// Width in terminal columns.
int width(std::string_view s);
/// `s` cut on the right to at most `max` columns, with an ellipsis when something was cut.
std::string clip(std::string_view s, int max);
/// `s` cut on the left to at most `max` columns, with an ellipsis when something was cut.
std::string clip_left(std::string_view s, int max);
/// `s` without C0 and C1 control characters and with malformed bytes replaced by U+FFFD.
std::string sanitize(std::string_view s);
/// `s` as it may be shown: like `sanitize`, and also without the invisible characters that turn or
/// shift what follows, and with surrogates and numbers that are no code points replaced.
std::string printable(std::string_view s);
/// `s` broken at spaces into lines of at most `max` columns; a no-break space does not break.
std::vector<std::string> wrap(std::string_view s, int max);

}  // namespace ox::text
