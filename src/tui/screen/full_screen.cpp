#include "tui/screen/full_screen.h"

#include <unistd.h>

#include <string>
#include <utility>

#include "base/environment.h"
#include "base/text.h"

namespace ox::tui {
namespace {

constexpr std::chrono::milliseconds kFrameInterval{100};
constexpr std::chrono::milliseconds kFinalFlush{50};

const Glyphs& glyphs_of_this_terminal() {
    return environment("TERM") == "linux" ? kConsoleGlyphs : kFullGlyphs;
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
    // The alternate screen is gone, and the error message with it.
    if (!snapshot_.events.empty() && snapshot_.events.back().kind == EventKind::StoppedOnError) {
        const std::string message = event_text(snapshot_.events.back(), view_.lang, 0);
        output_.add(text::printable(message + ": " + snapshot_.log_path) + "\n");
    }
    output_.flush_within(kFinalFlush);
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
    if (output_.buffered_bytes() > 0 || now - drawn_ < kFrameInterval) return;
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
