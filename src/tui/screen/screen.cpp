#include "tui/screen/screen.h"

#include <pthread.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/environment.h"
#include "base/thread.h"
#include "log/log.h"
#include "tui/screen/full_screen.h"
#include "tui/screen/plain_screen.h"

namespace ox::tui {
namespace {

constexpr std::chrono::milliseconds kTick{100};

Host detect_host() {
    const bool has_desktop =
        !environment("DISPLAY").empty() || !environment("WAYLAND_DISPLAY").empty();
    return has_desktop ? Host::Desktop : Host::NoDesktopSession;
}

}  // namespace

ScreenRunner::~ScreenRunner() {
    stop();
}

void ScreenRunner::start(Lang lang, Board& board, ColourMode mode) {
    board_ = &board;
    if (mode == ColourMode::Plain) {
        screen_ = std::make_unique<PlainScreen>(STDOUT_FILENO, lang, detect_host());
    } else {
        screen_ = std::make_unique<FullScreen>(STDOUT_FILENO, lang, detect_host(), mode);
    }
    thread_ = start_thread([this] { run(); },
                           [this](const char* why) {
                               OX_WARN("Screen: no thread (%s) - the log tells the story", why);
                               screen_.reset();
                           });
}

void ScreenRunner::stop() {
    if (!thread_.joinable()) return;
    board_->quit = true;
    {
        const MutexLock lock(board_->mutex);
        board_->changed.notify_all();
    }
    thread_.join();
    show_changes(std::chrono::milliseconds(0));
    screen_.reset();
}

void ScreenRunner::run() {
    ::pthread_setname_np(::pthread_self(), "screen");
    while (!board_->quit)
        show_changes(kTick);
}

void ScreenRunner::show_changes(std::chrono::milliseconds wait) {
    const auto deadline = SteadyClock::now() + wait;
    std::optional<Snapshot> snapshot;
    {
        MutexLock lock(board_->mutex);
        while (shown_changes_ == board_->state.changes && !board_->quit) {
            if (lock.wait_until(board_->changed, deadline) == std::cv_status::timeout) break;
        }
        if (shown_changes_ != board_->state.changes) snapshot = board_->state;
    }
    if (!snapshot) return screen_->idle();
    shown_changes_ = snapshot->changes;
    screen_->paint(*snapshot);
}

}  // namespace ox::tui
