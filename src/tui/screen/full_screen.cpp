#include "tui/screen/full_screen.h"

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "base/text.h"
#include "tui/screen/painter.h"

namespace ox::tui {
namespace {

constexpr std::chrono::milliseconds kBetweenPictures{100};
constexpr std::chrono::milliseconds kLastFlush{50};

// The kernel's own console has few characters in its fonts.
const Glyphs& glyphs_of_this_terminal() {
    const char* term = std::getenv("TERM");
    return term != nullptr && std::string_view(term) == "linux" ? kConsoleGlyphs : kFullGlyphs;
}

}  // namespace

FullScreen::FullScreen(int fd, Lang lang, Host host, ColourMode mode)
    : output_(fd), terminal_(output_.fd()), mode_(mode) {
    view_.lang = lang;
    view_.host = host;
    view_.pid = ::getpid();
    view_.glyphs = &glyphs_of_this_terminal();
    output_.add(TerminalSession::enter_bytes());
}

FullScreen::~FullScreen() {
    output_.drop();
    output_.add(TerminalSession::leave_bytes());
    // The picture is gone, and with it what it told of an error.
    if (!snapshot_.events.empty() && snapshot_.events.back().kind == EventKind::StoppedOnError) {
        const std::string words = event_text(snapshot_.events.back(), view_.lang, 0);
        output_.add(text::printable(words + ": " + snapshot_.log_path) + "\n");
    }
    output_.flush_within(kLastFlush);
}

void FullScreen::paint(const Snapshot& snapshot) {
    snapshot_ = snapshot;
    changed_ = true;
    draw_if_due();
}

void FullScreen::draw_if_due() {
    if (terminal_.is_lost()) {
        output_.drop();
        return;
    }
    output_.flush();
    damaged_ |= terminal_.was_disturbed();
    const Size size = terminal_.size();
    damaged_ |= size != view_.size;
    const int64_t now_s = system_now_s();
    if (!changed_ && !damaged_ && now_s == view_.now_s) return;
    const auto now = SteadyClock::now();
    if (output_.waiting() > 0 || now - drawn_ < kBetweenPictures) return;
    drawn_ = now;
    view_.size = size;
    view_.now_s = now_s;
    draw();
}

void FullScreen::draw() {
    Frame frame(view_.size, lay_out(snapshot_, view_));
    output_.add(damaged_ || !shown_ ? paint_all(frame, mode_)
                                    : paint_changes(*shown_, frame, mode_));
    output_.flush();
    shown_ = std::move(frame);
    changed_ = false;
    damaged_ = false;
}

}  // namespace ox::tui
