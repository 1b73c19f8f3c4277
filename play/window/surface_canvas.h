#pragma once

#include <SDL.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "play/window/canvas.h"

namespace ox::play {

/// Draws with the processor into the memory that the window system shows.
class SurfaceCanvas final : public Canvas {
  public:
    /// Null where the window's pixels are not of four bytes.
    static std::unique_ptr<Canvas> make(SDL_Window& window);

    explicit SurfaceCanvas(SDL_Window& window) : window_(window) {}

    [[nodiscard]] SDL_Point size() const override;
    void clear() override;
    bool draw(const AVFrame& picture, const SDL_Rect& place) override;
    void draw(const TextImage& image, SDL_Point place) override;
    void present() override { SDL_UpdateWindowSurface(&window_); }
    [[nodiscard]] const char* name() const override { return "processor"; }

  private:
    SDL_Window& window_;
    std::vector<uint8_t> planes_;  ///< a scaled or reordered picture
};

}  // namespace ox::play
