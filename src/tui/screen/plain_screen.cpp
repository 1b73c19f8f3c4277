#include "tui/screen/plain_screen.h"

#include <chrono>

#include "base/clock.h"

namespace ox::tui {
namespace {

// A reader that is only a little behind still gets the last lines.
constexpr std::chrono::milliseconds kLastFlush{50};

}  // namespace

PlainScreen::~PlainScreen() {
    output_.flush_within(kLastFlush);
}

void PlainScreen::paint(const Snapshot& snapshot) {
    for (const std::string& line : lines_.news(snapshot, system_now_s()))
        output_.add(line);
    output_.flush();
}

}  // namespace ox::tui
