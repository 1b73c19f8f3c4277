#pragma once

#include <SDL.h>

#include <memory>

#include "play/window/text_image.h"

struct AVFrame;

namespace ox::play {

/// What a window's content is drawn with. Used by the window's thread.
class Canvas {
  public:
    Canvas() = default;
    virtual ~Canvas() = default;
    Canvas(const Canvas&) = delete;
    Canvas& operator=(const Canvas&) = delete;

    /// In pixels.
    [[nodiscard]] virtual SDL_Point size() const = 0;
    /// Makes everything black.
    virtual void clear() = 0;
    /// Draws a 4:2:0 picture, scaled to `place`, in the colours that it states. False for another
    /// format, or on failure.
    virtual bool draw(const AVFrame& picture, const SDL_Rect& place) = 0;
    virtual void draw(const TextImage& image, SDL_Point place) = 0;
    virtual void present() = 0;
    /// How it draws, for the statistics.
    [[nodiscard]] virtual const char* name() const = 0;
};

/// With the graphics card where there is one, else with the processor, which is then faster than
/// a graphics card's emulation. Null, with SDL's error set, when the window cannot be drawn to.
/// The environment variable SDL_RENDER_DRIVER forces one of SDL's renderers.
std::unique_ptr<Canvas> make_canvas(SDL_Window& window);

/// The largest rectangle of the picture's shape in the middle of `area`.
SDL_Rect letterbox(SDL_Point picture, SDL_Point area);

}  // namespace ox::play
