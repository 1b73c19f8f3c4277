#include "video/portal/portal_limits.h"

#include <charconv>
#include <string_view>

namespace ox {

PortalLimits portal_limits(const char* start_timeout_ms) {
    PortalLimits limits;
    const std::string_view text = start_timeout_ms != nullptr ? start_timeout_ms : "";
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc{} && end == text.data() + text.size() && number > 0) {
        limits.start_with_token = limits.start_without_token = std::chrono::milliseconds(number);
    }
    return limits;
}

}  // namespace ox
