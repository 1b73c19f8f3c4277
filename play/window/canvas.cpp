#include "play/window/canvas.h"

#include <array>
#include <cstdlib>
#include <string_view>

#include "play/window/sdl_handles.h"
#include "play/window/surface_canvas.h"
#include "play/window/texture_canvas.h"

namespace ox::play {

namespace {

// OpenGL is there on every PC, at worst emulated by the processor. Asked of a window of its own,
// because a window that has been drawn to by OpenGL does not give it up everywhere.
bool has_graphics_card() {
    const SdlPtr<SDL_Window> window(SDL_CreateWindow("", 0, 0, 16, 16, SDL_WINDOW_HIDDEN));
    if (!window) return false;
    const SdlPtr<SDL_Renderer> renderer(
        SDL_CreateRenderer(window.get(), -1, SDL_RENDERER_ACCELERATED));
    if (!renderer) return false;
    using GetString = const unsigned char*(unsigned);
    auto* get_string = reinterpret_cast<GetString*>(SDL_GL_GetProcAddress("glGetString"));
    if (SDL_GL_GetCurrentContext() == nullptr || get_string == nullptr) return true;
    constexpr unsigned kRenderer = 0x1F01;  // GL_RENDERER
    const auto* text = get_string(kRenderer);
    const std::string_view name = text ? reinterpret_cast<const char*>(text) : "";
    constexpr std::array<std::string_view, 3> kEmulations = {"llvmpipe", "softpipe", "swrast"};
    for (const auto emulation : kEmulations)
        if (name.find(emulation) != std::string_view::npos) return false;
    return true;
}

}  // namespace

std::unique_ptr<Canvas> make_canvas(SDL_Window& window) {
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "linear");
    const bool forced = std::getenv("SDL_RENDER_DRIVER") != nullptr;
    if (forced || has_graphics_card()) {
        if (auto canvas = TextureCanvas::make(window, forced ? 0 : SDL_RENDERER_ACCELERATED))
            return canvas;
    }
    if (auto canvas = SurfaceCanvas::make(window)) return canvas;
    // Not every window system gives its memory away; then even an emulation is welcome.
    return TextureCanvas::make(window, 0);
}

SDL_Rect letterbox(SDL_Point picture, SDL_Point area) {
    if (picture.x <= 0 || picture.y <= 0) return {};
    SDL_Rect place{0, 0, area.x, area.y};
    const auto wide = static_cast<int64_t>(picture.x) * area.y;
    const auto high = static_cast<int64_t>(picture.y) * area.x;
    if (wide > high)
        place.h = static_cast<int>(high / picture.x);
    else
        place.w = static_cast<int>(wide / picture.y);
    place.x = (area.x - place.w) / 2;
    place.y = (area.y - place.h) / 2;
    return place;
}

}  // namespace ox::play
