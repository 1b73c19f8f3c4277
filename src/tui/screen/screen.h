#pragma once

#include "tui/board/board.h"

namespace ox::tui {

/// One way of showing the board. Made, fed and destroyed by `ScreenRunner`, which calls from one
/// thread at a time; what a screen does to the terminal, its destructor takes back. No call may
/// wait for the terminal longer than a few hundredths of a second.
class Screen {
  public:
    Screen() = default;
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    virtual ~Screen() = default;

    /// Shows a board that has changed.
    virtual void paint(const Snapshot& snapshot) = 0;

    /// The board is as it was; called about ten times a second in place of `paint`.
    virtual void idle() = 0;
};

}  // namespace ox::tui
