#include "play/window/texture_canvas.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <utility>

namespace ox::play {

std::unique_ptr<Canvas> TextureCanvas::make(SDL_Window& window, uint32_t flags) {
    SdlPtr<SDL_Renderer> renderer(SDL_CreateRenderer(&window, -1, flags));
    if (!renderer) return nullptr;
    return std::make_unique<TextureCanvas>(std::move(renderer));
}

TextureCanvas::TextureCanvas(SdlPtr<SDL_Renderer> renderer) : renderer_(std::move(renderer)) {
    SDL_GetRendererInfo(renderer_.get(), &info_);
}

SDL_Point TextureCanvas::size() const {
    SDL_Point size{};
    SDL_GetRendererOutputSize(renderer_.get(), &size.x, &size.y);
    return size;
}

void TextureCanvas::clear() {
    SDL_SetRenderDrawColor(renderer_.get(), 0, 0, 0, SDL_ALPHA_OPAQUE);
    SDL_RenderClear(renderer_.get());
}

std::optional<TextureCanvas::PictureKind> TextureCanvas::kind_of(const AVFrame& picture) {
    PictureKind kind{.width = picture.width, .height = picture.height};
    switch (picture.format) {
        case AV_PIX_FMT_YUV420P:
        case AV_PIX_FMT_YUVJ420P:
            kind.format = SDL_PIXELFORMAT_IYUV;
            break;
        case AV_PIX_FMT_NV12:
            kind.format = SDL_PIXELFORMAT_NV12;
            break;
        default:
            return std::nullopt;
    }
    // SDL knows the full range with the matrix of BT.601 only.
    if (picture.color_range == AVCOL_RANGE_JPEG || picture.format == AV_PIX_FMT_YUVJ420P)
        kind.colours = SDL_YUV_CONVERSION_JPEG;
    else if (picture.colorspace == AVCOL_SPC_BT709)
        kind.colours = SDL_YUV_CONVERSION_BT709;
    return kind;
}

bool TextureCanvas::draw(const AVFrame& picture, const SDL_Rect& place) {
    const auto kind = kind_of(picture);
    if (!kind) return false;
    if (!picture_ || *kind != kind_) {
        SDL_SetYUVConversionMode(kind->colours);  // a texture keeps that of its creation
        picture_.reset(SDL_CreateTexture(renderer_.get(), kind->format, SDL_TEXTUREACCESS_STREAMING,
                                         kind->width, kind->height));
        kind_ = *kind;
    }
    if (!picture_) return false;
    const int updated =
        kind->format == SDL_PIXELFORMAT_NV12
            ? SDL_UpdateNVTexture(picture_.get(), nullptr, picture.data[0], picture.linesize[0],
                                  picture.data[1], picture.linesize[1])
            : SDL_UpdateYUVTexture(picture_.get(), nullptr, picture.data[0], picture.linesize[0],
                                   picture.data[1], picture.linesize[1], picture.data[2],
                                   picture.linesize[2]);
    return updated == 0 && SDL_RenderCopy(renderer_.get(), picture_.get(), nullptr, &place) == 0;
}

SDL_Texture* TextureCanvas::texture_of(const TextImage& image) {
    for (const auto& known : images_)
        if (known.texture && known.id == image.id) return known.texture.get();
    SdlPtr<SDL_Texture> texture(SDL_CreateTexture(renderer_.get(), SDL_PIXELFORMAT_ARGB8888,
                                                  SDL_TEXTUREACCESS_STATIC, image.width,
                                                  image.height));
    if (!texture) return nullptr;
    const auto premultiplied = SDL_ComposeCustomBlendMode(
        SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD,
        SDL_BLENDFACTOR_ONE, SDL_BLENDFACTOR_ONE_MINUS_SRC_ALPHA, SDL_BLENDOPERATION_ADD);
    if (SDL_SetTextureBlendMode(texture.get(), premultiplied) != 0)
        SDL_SetTextureBlendMode(texture.get(), SDL_BLENDMODE_BLEND);  // with darker edges
    SDL_UpdateTexture(texture.get(), nullptr, image.pixels.data(),
                      image.width * static_cast<int>(sizeof(uint32_t)));
    images_[1] = std::move(images_[0]);
    images_[0] = {image.id, std::move(texture)};
    return images_[0].texture.get();
}

void TextureCanvas::draw(const TextImage& image, SDL_Point place) {
    const SDL_Rect target{place.x, place.y, image.width, image.height};
    if (SDL_Texture* texture = texture_of(image))
        SDL_RenderCopy(renderer_.get(), texture, nullptr, &target);
}

}  // namespace ox::play
