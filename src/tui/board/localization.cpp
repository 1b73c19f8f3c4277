#include "tui/board/localization.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace ox::tui {
namespace {

std::string local_time(int64_t time_s, const char* format) {
    const time_t seconds = time_s;
    tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, sizeof "HH:MM:SS"> text{};
    std::strftime(text.data(), text.size(), format, &local);
    return text.data();
}

}  // namespace

Lang os_language() {
    for (const char* name : {"OX_LANG", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        const bool russian =
            (value[0] == 'r' || value[0] == 'R') && (value[1] == 'u' || value[1] == 'U');
        return russian ? Lang::Russian : Lang::English;
    }
    return Lang::English;
}

std::string clock_text(int64_t time_s) {
    return local_time(time_s, "%H:%M");
}

std::string clock_text_with_seconds(int64_t time_s) {
    return local_time(time_s, "%H:%M:%S");
}

std::string duration_words(int64_t seconds, Lang lang) {
    constexpr int64_t kMinute = 60;
    constexpr int64_t kHour = 3600;
    const int64_t total = std::max<int64_t>(seconds, 0);
    const char* minute_unit = Text{" min", "\u00A0мин"}.in(lang);
    if (total < kMinute) return std::to_string(total) + Text{" s", "\u00A0с"}.in(lang);
    if (total < kHour) return std::to_string(total / kMinute) + minute_unit;
    const int64_t minutes = total % kHour / kMinute;
    return std::to_string(total / kHour) + Text{" h ", "\u00A0ч "}.in(lang) +
           (minutes < 10 ? "0" : "") + std::to_string(minutes) + minute_unit;
}

std::string stopwatch(int64_t seconds) {
    const auto total = static_cast<long long>(std::max<int64_t>(seconds, 0));
    std::array<char, 40> text{};
    if (total < 3600) {
        std::snprintf(text.data(), text.size(), "%lld:%02lld", total / 60, total % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                      total % 60);
    }
    return text.data();
}

std::string number(double value, int decimals, Lang lang) {
    constexpr double kMax = 99'999.0;
    if (!std::isfinite(value) || value < 0) return "—";
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, std::min(value, kMax));
    std::string result = text.data();
    // The process's locale may have put either mark.
    for (char& c : result) {
        if (c == '.' || c == ',') c = lang == Lang::Russian ? ',' : '.';
    }
    return result;
}

}  // namespace ox::tui
