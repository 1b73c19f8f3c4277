#include "tui/board/clock_text.h"

#include <array>
#include <ctime>

namespace ox::tui {

std::string clock_text(int64_t time_s) {
    const time_t seconds = time_s;
    tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, sizeof "HH:MM"> text{};
    std::strftime(text.data(), text.size(), "%H:%M", &local);
    return text.data();
}

}  // namespace ox::tui
