#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// UTF-8 text in terminal columns. Pure functions that never fail; malformed bytes read as U+FFFD.
namespace ox::text {

/// Reads the code point at byte `index` and moves `index` past it. `index` must be inside `s`.
char32_t next_cp(std::string_view s, size_t& index);
void append_cp(std::string& out, char32_t cp);
/// Width of one code point in terminal columns: 0, 1 or 2.
int columns(char32_t cp);
int width(std::string_view s);
/// `s` truncated on the right to at most `max` columns, with an ellipsis when something was cut.
std::string clip(std::string_view s, int max);
/// `s` truncated on the left to at most `max` columns, with an ellipsis when something was cut.
std::string clip_left(std::string_view s, int max);
/// `s` without C0 and C1 control characters and with malformed bytes replaced by U+FFFD.
std::string sanitize(std::string_view s);
/// For display: also without invisible characters that reorder or shift text, and invalid code
/// points replaced.
std::string printable(std::string_view s);
/// `s` broken at spaces into lines of at most `max` columns; a no-break space does not break.
std::vector<std::string> wrap(std::string_view s, int max);

}  // namespace ox::text
