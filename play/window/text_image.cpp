#include "play/window/text_image.h"

#include <pango/pangocairo.h>

#include <algorithm>
#include <memory>

namespace ox::play {

namespace {

struct CairoDeleter {
    void operator()(cairo_surface_t* p) const noexcept { cairo_surface_destroy(p); }
    void operator()(cairo_t* p) const noexcept { cairo_destroy(p); }
    void operator()(PangoFontDescription* p) const noexcept { pango_font_description_free(p); }
    void operator()(PangoLayout* p) const noexcept { g_object_unref(p); }
};
template <typename T>
using CairoPtr = std::unique_ptr<T, CairoDeleter>;

CairoPtr<cairo_surface_t> make_surface(TextImage& image) {
    image.pixels.assign(static_cast<size_t>(image.width) * static_cast<size_t>(image.height), 0);
    return CairoPtr<cairo_surface_t>(cairo_image_surface_create_for_data(
        reinterpret_cast<unsigned char*>(image.pixels.data()), CAIRO_FORMAT_ARGB32, image.width,
        image.height, image.width * static_cast<int>(sizeof(uint32_t))));
}

CairoPtr<PangoLayout> make_layout(cairo_t* cairo, const std::string& text, TextStyle style,
                                  int font_height, int max_width) {
    CairoPtr<PangoLayout> layout(pango_cairo_create_layout(cairo));
    const CairoPtr<PangoFontDescription> font(
        pango_font_description_from_string(style == TextStyle::Message ? "Sans" : "Monospace"));
    pango_font_description_set_absolute_size(font.get(), font_height * PANGO_SCALE);
    pango_layout_set_font_description(layout.get(), font.get());
    pango_layout_set_width(layout.get(), max_width * PANGO_SCALE);
    pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
    if (style == TextStyle::Message) pango_layout_set_alignment(layout.get(), PANGO_ALIGN_CENTER);
    pango_layout_set_text(layout.get(), text.c_str(), static_cast<int>(text.size()));
    return layout;
}

}  // namespace

TextImage render_text(const std::string& text, TextStyle style, int font_height, int max_width) {
    static uint64_t images = 0;
    const int margin = font_height;
    TextImage image{.id = ++images, .pixels = {}, .width = 1, .height = 1};
    PangoRectangle extent{};
    {
        const auto surface = make_surface(image);
        const CairoPtr<cairo_t> cairo(cairo_create(surface.get()));
        const auto layout =
            make_layout(cairo.get(), text, style, font_height, std::max(max_width - 2 * margin, 1));
        pango_layout_get_pixel_extents(layout.get(), nullptr, &extent);
    }
    image.width = extent.width + 2 * margin;
    image.height = extent.height + margin;
    const auto surface = make_surface(image);
    const CairoPtr<cairo_t> cairo(cairo_create(surface.get()));
    cairo_set_source_rgba(cairo.get(), 0.05, 0.05, 0.08, 0.75);
    cairo_paint(cairo.get());
    cairo_set_source_rgb(cairo.get(), 1, 1, 1);
    cairo_move_to(cairo.get(), margin, margin / 2.0);
    const auto layout = make_layout(cairo.get(), text, style, font_height, extent.width);
    pango_cairo_show_layout(cairo.get(), layout.get());
    cairo_surface_flush(surface.get());
    return image;
}

}  // namespace ox::play
