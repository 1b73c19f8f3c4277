#pragma once

#include "tui/screen/plain_lines.h"
#include "tui/screen/screen.h"
#include "tui/screen/terminal_output.h"

namespace ox::tui {

/// Shows the board as lines of text that scroll by: for pipes, journals and simple terminals.
class PlainScreen final : public Screen {
  public:
    /// Writes to what `fd` refers to.
    PlainScreen(int fd, Lang lang, Host host) : lines_(lang, host), output_(fd) {}
    ~PlainScreen() override;

    void paint(const Snapshot& snapshot) override;
    void idle() override { output_.flush(); }

  private:
    PlainLines lines_;
    LineOutput output_;
};

}  // namespace ox::tui
