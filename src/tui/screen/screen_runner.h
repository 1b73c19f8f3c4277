#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

#include "tui/board/board.h"
#include "tui/board/board_texts.h"
#include "tui/screen/palette.h"
#include "tui/screen/screen.h"

namespace ox::tui {

/// Owner of the thread that shows the board on standard output. Nothing else writes there while it
/// runs. Ends when the board's quit mark is set; the destructor sets it and joins (at most about
/// 200 ms, whatever state standard output is in).
class ScreenRunner {
  public:
    ScreenRunner() = default;
    ~ScreenRunner();
    ScreenRunner(const ScreenRunner&) = delete;
    ScreenRunner& operator=(const ScreenRunner&) = delete;

    /// Starts the thread. Call once, before other threads start; `stop` from the same thread. In a
    /// colour the terminal belongs to the screen until then. `board` must outlive the runner.
    void start(Lang lang, Board& board, ColourMode mode);

    /// Sets the quit mark, joins, and shows what was reported since the thread saw the mark. Safe
    /// to call twice.
    void stop();

  private:
    void run();
    // Paints the board if it has changed, or as soon as it does within `wait`.
    void show_changes(std::chrono::milliseconds wait);

    Board* board_ = nullptr;
    // The thread's while it runs, the caller's after the join.
    std::unique_ptr<Screen> screen_;
    std::optional<uint64_t> shown_changes_;
    std::jthread thread_;
};

}  // namespace ox::tui
