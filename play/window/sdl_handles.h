#pragma once

// Owners of SDL's objects.

#include <SDL.h>

#include <memory>

namespace ox::play {

struct SdlDeleter {
    void operator()(SDL_Window* p) const noexcept { SDL_DestroyWindow(p); }
    void operator()(SDL_Renderer* p) const noexcept { SDL_DestroyRenderer(p); }
    void operator()(SDL_Texture* p) const noexcept { SDL_DestroyTexture(p); }
};

template <typename T>
using SdlPtr = std::unique_ptr<T, SdlDeleter>;

}  // namespace ox::play
