#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "base/clock.h"
#include "tui/screen/frame.h"
#include "tui/screen/layout.h"
#include "tui/screen/screen.h"
#include "tui/screen/terminal_output.h"
#include "tui/screen/terminal_session.h"

namespace ox::tui {

/// The board on the whole terminal, repainted at most ten times a second. A terminal that does not
/// read misses whole frames.
class FullScreen final : public Screen {
  public:
    /// Construct and destroy as `TerminalSession` requires.
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
    bool damaged_ = true;         // the terminal's content is unknown
    std::optional<Frame> shown_;  // as last sent
    SteadyClock::time_point drawn_{};
};

}  // namespace ox::tui
