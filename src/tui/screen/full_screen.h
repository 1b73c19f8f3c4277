#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "base/clock.h"
#include "tui/board/board_texts.h"
#include "tui/screen/frame.h"
#include "tui/screen/layout.h"
#include "tui/screen/palette.h"
#include "tui/screen/screen.h"
#include "tui/screen/terminal_output.h"
#include "tui/screen/terminal_session.h"

namespace ox::tui {

/// Shows the board as a picture that fills the terminal. Repaints what changed, at most ten times a
/// second, and once a second for the running clocks. A terminal that takes nothing misses pictures,
/// never parts of one.
class FullScreen final : public Screen {
  public:
    /// Draws on the terminal that `fd` refers to. Construct and destroy as `TerminalSession` wants.
    FullScreen(int fd, Lang lang, Host host, ColourMode mode);
    ~FullScreen() override;

    void paint(const Snapshot& snapshot) override;
    void idle() override { draw_if_due(); }

  private:
    void draw_if_due();
    void draw();

    TerminalOutput output_;
    TerminalSession terminal_;
    View view_;
    ColourMode mode_;
    Snapshot snapshot_;
    bool changed_ = false;
    bool damaged_ = true;         // what the terminal shows is not known
    std::optional<Frame> shown_;  // as of the last picture that was sent
    SteadyClock::time_point drawn_{};
};

}  // namespace ox::tui
