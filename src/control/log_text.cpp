#include "control/log_text.h"

#include <algorithm>

namespace ox {

std::string printable(std::string_view text) {
    constexpr size_t kLongest = 64;
    std::string result(text.substr(0, kLongest));
    std::replace_if(
        result.begin(), result.end(), [](char c) { return c < 0x20 || c > 0x7e; }, '?');
    if (text.size() > kLongest) result += "...";
    return result;
}

std::string without_input(std::string_view error_message) {
    // The two places where the library quotes what it read: bad tokens and numbers out of range.
    for (const std::string_view quote : {"; last read: '", " parsing '"}) {
        error_message = error_message.substr(0, error_message.find(quote));
    }
    return std::string(error_message);
}

}  // namespace ox
