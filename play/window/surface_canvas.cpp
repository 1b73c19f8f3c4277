#include "play/window/surface_canvas.h"

#include <libyuv.h>

extern "C" {
#include <libavutil/frame.h>
}

#include <algorithm>
#include <array>
#include <optional>

namespace ox::play {

namespace {

/// Three planes of a 4:2:0 picture.
struct Planes {
    std::array<const uint8_t*, 3> data{};
    std::array<int, 3> stride{};
    int width = 0;
    int height = 0;
};

/// Room for the planes of a picture in `memory`, which grows as needed.
struct PlaneRoom {
    std::array<uint8_t*, 3> data{};
    std::array<int, 3> stride{};

    PlaneRoom(std::vector<uint8_t>& memory, int width, int height) {
        const int half_width = (width + 1) / 2;
        const auto luma = static_cast<size_t>(width) * static_cast<size_t>(height);
        const auto chroma = static_cast<size_t>(half_width) * static_cast<size_t>((height + 1) / 2);
        memory.resize(luma + 2 * chroma);
        data = {memory.data(), memory.data() + luma, memory.data() + luma + chroma};
        stride = {width, half_width, half_width};
    }
    [[nodiscard]] Planes planes(int width, int height) const {
        return {{data[0], data[1], data[2]}, stride, width, height};
    }
};

// Hardware decoders interleave the colour planes.
std::optional<Planes> planes_of(const AVFrame& picture, std::vector<uint8_t>& memory) {
    const int width = picture.width;
    const int height = picture.height;
    if (picture.format == AV_PIX_FMT_YUV420P || picture.format == AV_PIX_FMT_YUVJ420P)
        return Planes{{picture.data[0], picture.data[1], picture.data[2]},
                      {picture.linesize[0], picture.linesize[1], picture.linesize[2]},
                      width,
                      height};
    if (picture.format != AV_PIX_FMT_NV12) return std::nullopt;
    const PlaneRoom room(memory, width, height);
    libyuv::NV12ToI420(picture.data[0], picture.linesize[0], picture.data[1], picture.linesize[1],
                       room.data[0], room.stride[0], room.data[1], room.stride[1], room.data[2],
                       room.stride[2], width, height);
    return room.planes(width, height);
}

const libyuv::YuvConstants& matrix_of(const AVFrame& picture) {
    const bool full =
        picture.color_range == AVCOL_RANGE_JPEG || picture.format == AV_PIX_FMT_YUVJ420P;
    if (picture.colorspace == AVCOL_SPC_BT709)
        return full ? libyuv::kYuvF709Constants : libyuv::kYuvH709Constants;
    return full ? libyuv::kYuvJPEGConstants : libyuv::kYuvI601Constants;
}

uint8_t* pixel(SDL_Surface& surface, int x, int y) {
    return static_cast<uint8_t*>(surface.pixels) + static_cast<ptrdiff_t>(y) * surface.pitch +
           static_cast<ptrdiff_t>(x) * 4;
}

}  // namespace

std::unique_ptr<Canvas> SurfaceCanvas::make(SDL_Window& window) {
    SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
    const SDL_Surface* surface = SDL_GetWindowSurface(&window);
    // In memory blue, green, red, anything: what libyuv calls ARGB.
    if (surface == nullptr || (surface->format->format != SDL_PIXELFORMAT_RGB888 &&
                               surface->format->format != SDL_PIXELFORMAT_ARGB8888))
        return nullptr;
    return std::make_unique<SurfaceCanvas>(window);
}

SDL_Point SurfaceCanvas::size() const {
    const SDL_Surface* surface = SDL_GetWindowSurface(&window_);
    return surface ? SDL_Point{surface->w, surface->h} : SDL_Point{};
}

void SurfaceCanvas::clear() {
    if (SDL_Surface* surface = SDL_GetWindowSurface(&window_))
        SDL_FillRect(surface, nullptr, SDL_MapRGB(surface->format, 0, 0, 0));
}

bool SurfaceCanvas::draw(const AVFrame& picture, const SDL_Rect& place) {
    SDL_Surface* surface = SDL_GetWindowSurface(&window_);
    const SDL_Rect whole{0, 0, surface ? surface->w : 0, surface ? surface->h : 0};
    SDL_Rect visible{};
    if (!SDL_IntersectRect(&place, &whole, &visible) || !SDL_RectEquals(&place, &visible))
        return false;
    std::vector<uint8_t> reordered;
    auto planes = planes_of(picture, reordered);
    if (!planes) return false;
    if (planes->width != place.w || planes->height != place.h) {
        const PlaneRoom room(planes_, place.w, place.h);
        libyuv::I420Scale(planes->data[0], planes->stride[0], planes->data[1], planes->stride[1],
                          planes->data[2], planes->stride[2], planes->width, planes->height,
                          room.data[0], room.stride[0], room.data[1], room.stride[1], room.data[2],
                          room.stride[2], place.w, place.h, libyuv::kFilterBox);
        planes = room.planes(place.w, place.h);
    }
    return libyuv::I420ToARGBMatrix(planes->data[0], planes->stride[0], planes->data[1],
                                    planes->stride[1], planes->data[2], planes->stride[2],
                                    pixel(*surface, place.x, place.y), surface->pitch,
                                    &matrix_of(picture), place.w, place.h) == 0;
}

void SurfaceCanvas::draw(const TextImage& image, SDL_Point place) {
    SDL_Surface* surface = SDL_GetWindowSurface(&window_);
    if (surface == nullptr || place.x < 0 || place.y < 0) return;
    const int width = std::min(image.width, surface->w - place.x);
    const int height = std::min(image.height, surface->h - place.y);
    if (width <= 0 || height <= 0) return;
    uint8_t* target = pixel(*surface, place.x, place.y);
    libyuv::ARGBBlend(reinterpret_cast<const uint8_t*>(image.pixels.data()), image.width * 4,
                      target, surface->pitch, target, surface->pitch, width, height);
}

}  // namespace ox::play
