#include "control/log_text.h"

namespace ox {

std::string without_input(std::string_view error_message) {
    // The two places where the library quotes what it read: bad tokens and numbers out of range.
    for (const std::string_view quote : {"; last read: '", " parsing '"}) {
        error_message = error_message.substr(0, error_message.find(quote));
    }
    return std::string(error_message);
}

}  // namespace ox
