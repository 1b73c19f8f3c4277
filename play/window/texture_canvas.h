#pragma once

#include <SDL.h>

#include <array>
#include <memory>
#include <optional>

#include "play/window/canvas.h"
#include "play/window/sdl_handles.h"

namespace ox::play {

/// Draws with one of SDL's renderers, which converts and scales the planes.
class TextureCanvas final : public Canvas {
  public:
    /// Null where SDL has no such renderer; `flags` are SDL_RendererFlags.
    static std::unique_ptr<Canvas> make(SDL_Window& window, uint32_t flags);

    explicit TextureCanvas(SdlPtr<SDL_Renderer> renderer);

    [[nodiscard]] SDL_Point size() const override;
    void clear() override;
    bool draw(const AVFrame& picture, const SDL_Rect& place) override;
    void draw(const TextImage& image, SDL_Point place) override;
    void present() override { SDL_RenderPresent(renderer_.get()); }
    [[nodiscard]] const char* name() const override { return info_.name; }

  private:
    /// Decides on the texture.
    struct PictureKind {
        int width = 0;
        int height = 0;
        uint32_t format = 0;
        SDL_YUV_CONVERSION_MODE colours = SDL_YUV_CONVERSION_BT601;
        bool operator==(const PictureKind&) const = default;
    };
    struct ImageTexture {
        uint64_t id = 0;
        SdlPtr<SDL_Texture> texture;
    };

    static std::optional<PictureKind> kind_of(const AVFrame& picture);
    SDL_Texture* texture_of(const TextImage& image);

    SdlPtr<SDL_Renderer> renderer_;
    SDL_RendererInfo info_{};
    PictureKind kind_;
    SdlPtr<SDL_Texture> picture_;
    std::array<ImageTexture, 2> images_;  ///< the last ones, the newest first
};

}  // namespace ox::play
