#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

#include "tui/board/board.h"
#include "tui/board/localization.h"
#include "tui/screen/painter.h"

namespace ox::tui {

/// One way of showing the board, driven by ScreenRunner from one thread at a time. The destructor
/// restores the terminal. No call blocks for longer than a few hundredths of a second.
class Screen {
  public:
    Screen() = default;
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
    virtual ~Screen() = default;

    virtual void paint(const Snapshot& snapshot) = 0;

    /// Called about ten times a second while the board does not change.
    virtual void idle() = 0;
};

/// The thread that shows the board, standard output's only writer. Ends with the board's `quit`,
/// which the destructor sets; joins within about 200 ms.
class ScreenRunner {
  public:
    ScreenRunner() = default;
    ~ScreenRunner();
    ScreenRunner(const ScreenRunner&) = delete;
    ScreenRunner& operator=(const ScreenRunner&) = delete;

    /// Once, before other threads start; `stop` in the same thread. `board` outlives the runner.
    void start(Lang lang, Board& board, ColourMode mode);

    /// Sets `quit`, joins, and shows what was reported after the thread saw it. Idempotent.
    void stop();

  private:
    void run();
    // Paints the board if it has changed, or as soon as it changes within `wait`.
    void show_changes(std::chrono::milliseconds wait);

    Board* board_ = nullptr;
    // Used by the thread while it runs, by the caller after the join.
    std::unique_ptr<Screen> screen_;
    std::optional<uint64_t> shown_changes_;
    std::jthread thread_;
};

}  // namespace ox::tui
