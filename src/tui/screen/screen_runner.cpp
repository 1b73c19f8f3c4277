#include "tui/screen/screen_runner.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <system_error>

#include "log/log.h"
#include "tui/screen/full_screen.h"
#include "tui/screen/plain_screen.h"

namespace ox::tui {
namespace {

constexpr std::chrono::milliseconds kTick{100};

bool is_set(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0';
}

// Where no desktop is to be seen at all, the remedy for a failed capture is to log in to one.
Host detect_host() {
    return is_set("DISPLAY") || is_set("WAYLAND_DISPLAY") ? Host::Desktop : Host::NoDesktopSession;
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
    try {
        thread_ = std::jthread([this] { run(); });
    } catch (const std::system_error& error) {
        OX_WARN("Screen: no thread (%s) - the log tells the story", error.what());
        screen_.reset();
    }
}

void ScreenRunner::stop() {
    if (!thread_.joinable()) return;
    board_->quit = true;
    {
        const std::lock_guard lock(board_->mutex);
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
    Snapshot snapshot;
    bool changed = false;
    {
        std::unique_lock lock(board_->mutex);
        const auto has_changed = [this] { return shown_changes_ != board_->state.changes; };
        board_->changed.wait_for(lock, wait, [&] { return has_changed() || board_->quit; });
        changed = has_changed();
        if (changed) snapshot = board_->state;
    }
    if (!changed) {
        screen_->idle();
        return;
    }
    shown_changes_ = snapshot.changes;
    screen_->paint(snapshot);
}

}  // namespace ox::tui
