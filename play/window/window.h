#pragma once

#include <SDL.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "play/window/canvas.h"
#include "play/window/sdl_handles.h"

namespace ox::play {

/// The program's window. Used by the thread that initialised SDL's video.
class Window {
  public:
    struct Settings {
        std::string title;
        SDL_Point picture{};  ///< size of the pictures to come
        bool fullscreen = false;
    };

    /// False, with a text for the user in `error`, when there can be no window.
    bool open(const Settings& settings, std::string& error);

    /// Shows `picture` (may be null: black) under `message` in its middle and `statistics` in a
    /// corner; either text may be empty. False when the picture cannot be drawn.
    bool show(const AVFrame* picture, const std::string& message, const std::string& statistics);

    void toggle_fullscreen();
    [[nodiscard]] bool is_fullscreen() const;
    [[nodiscard]] SDL_Window* handle() const { return window_.get(); }
    [[nodiscard]] const char* renderer() const { return canvas_->name(); }

  private:
    /// An image of the newest text.
    struct Label {
        TextStyle style;
        std::string text{};
        SDL_Point area{};
        TextImage image{};

        const TextImage& of(const std::string& wanted, SDL_Point canvas);
    };

    SdlPtr<SDL_Window> window_;
    std::unique_ptr<Canvas> canvas_;
    Label message_{.style = TextStyle::Message};
    Label statistics_{.style = TextStyle::Statistics};
};

/// Size in pixels of the display that a new window appears on, within what can be streamed.
SDL_Point display_size();

}  // namespace ox::play
