#include "play/window/window.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>

namespace ox::play {

namespace {

constexpr int kLargestPicture = 4096;

// Where the picture does not fit beside the desktop's bars, smaller in its own shape.
SDL_Point window_size(SDL_Point picture) {
    SDL_Rect usable{};
    if (SDL_GetDisplayUsableBounds(0, &usable) != 0) return picture;
    if (picture.x <= usable.w && picture.y <= usable.h) return picture;
    const SDL_Rect fit = letterbox(picture, {usable.w * 9 / 10, usable.h * 9 / 10});
    return {fit.w, fit.h};
}

}  // namespace

SDL_Point display_size() {
    SDL_DisplayMode mode{};
    if (SDL_GetDesktopDisplayMode(0, &mode) != 0 || mode.w <= 0 || mode.h <= 0) return {1920, 1080};
    const SDL_Rect fit = letterbox(
        {mode.w, mode.h}, {std::min(mode.w, kLargestPicture), std::min(mode.h, kLargestPicture)});
    return {fit.w & ~1, fit.h & ~1};
}

bool Window::open(const Settings& settings, std::string& error) {
    const SDL_Point size = window_size(settings.picture);
    const uint32_t flags = SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI |
                           (settings.fullscreen ? uint32_t{SDL_WINDOW_FULLSCREEN_DESKTOP} : 0U);
    window_.reset(SDL_CreateWindow(settings.title.c_str(), SDL_WINDOWPOS_CENTERED,
                                   SDL_WINDOWPOS_CENTERED, size.x, size.y, flags));
    if (window_) canvas_ = make_canvas(*window_);
    if (canvas_) return true;
    error = std::string("cannot open a window: ") + SDL_GetError();
    return false;
}

const TextImage& Window::Label::of(const std::string& wanted, SDL_Point canvas) {
    if (wanted != text || canvas.x != area.x || canvas.y != area.y) {
        const int divisor = style == TextStyle::Message ? 32 : 54;
        text = wanted;
        area = canvas;
        image = render_text(text, style, std::clamp(canvas.y / divisor, 11, 48), canvas.x);
    }
    return image;
}

bool Window::show(const AVFrame* picture, const std::string& message,
                  const std::string& statistics) {
    const SDL_Point area = canvas_->size();
    bool drawn = true;
    const SDL_Rect place =
        picture ? letterbox({picture->width, picture->height}, area) : SDL_Rect{};
    if (place.w != area.x || place.h != area.y) canvas_->clear();
    if (picture != nullptr && place.w > 0 && place.h > 0) drawn = canvas_->draw(*picture, place);
    if (!message.empty()) {
        const TextImage& image = message_.of(message, area);
        canvas_->draw(image, {std::max((area.x - image.width) / 2, 0),
                              std::max((area.y - image.height) / 2, 0)});
    }
    if (!statistics.empty()) canvas_->draw(statistics_.of(statistics, area), {0, 0});
    canvas_->present();
    return drawn;
}

bool Window::is_fullscreen() const {
    return (SDL_GetWindowFlags(window_.get()) & SDL_WINDOW_FULLSCREEN_DESKTOP) != 0;
}

void Window::toggle_fullscreen() {
    SDL_SetWindowFullscreen(window_.get(),
                            is_fullscreen() ? 0U : uint32_t{SDL_WINDOW_FULLSCREEN_DESKTOP});
}

}  // namespace ox::play
