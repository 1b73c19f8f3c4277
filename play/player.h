#pragma once

#include <SDL.h>

#include <atomic>
#include <memory>
#include <string>

#include "base/clock.h"
#include "play/input/input_capture.h"
#include "play/link.h"
#include "play/options.h"
#include "play/picture_slot.h"
#include "play/sound/sound_output.h"
#include "play/texts.h"
#include "play/window/window.h"
#include "tui/board/localization.h"

namespace ox::play {

/// The player's end of a session: window, sound and input around a `Link`. One at a time;
/// everything runs on the thread that calls `run`, which must be the main one.
class Player {
  public:
    struct Result {
        ExitStatus status = ExitStatus::Ok;
        std::string error;    ///< one line for the user; empty when all went well
        std::string summary;  ///< likewise; empty when no picture was shown
    };

    Player(const Options& options, tui::Lang lang);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    /// Returns when the player or the PC ended the session, or it failed.
    Result run();

  private:
    class Video;

    bool open_window(std::string& error);
    void start_link();
    void loop();
    void handle(const SDL_Event& event);
    void obey(Command command);
    /// Draws when there is something new.
    void update();
    void update_statistics(const LinkStatus& status, SteadyClock::time_point now);
    void draw();
    [[nodiscard]] bool is_over(const LinkStatus& status, SteadyClock::time_point now);
    void wake();

    Options options_;
    const tui::Lang lang_;
    std::unique_ptr<Video> video_;  ///< outlives the window
    Window window_;
    PictureSlot pictures_;
    uint32_t wake_event_ = 0;
    std::atomic<bool> wake_pending_{false};
    std::unique_ptr<SoundOutput> sound_;  ///< null: without sound
    std::unique_ptr<Link> link_;
    std::unique_ptr<InputCapture> input_;

    Picture shown_;
    std::string message_;
    std::string statistics_;
    bool show_statistics_;
    bool redraw_ = true;
    bool quit_ = false;
    bool undrawable_ = false;
    uint64_t pictures_shown_ = 0;
    SteadyClock::time_point first_shown_{};
    SteadyClock::time_point farewell_until_{};  ///< of the last message, once all is over
    SteadyClock::time_point statistics_due_{};
    SteadyClock::time_point statistics_made_{};
    uint64_t statistics_shown_ = 0;  ///< pictures, when the statistics were made
};

}  // namespace ox::play
