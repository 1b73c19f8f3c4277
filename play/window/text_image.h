#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ox::play {

/// Text on a translucent dark box.
struct TextImage {
    uint64_t id = 0;               ///< differs for each image that was made
    std::vector<uint32_t> pixels;  ///< ARGB in native byte order, alpha premultiplied; row by row
    int width = 0;
    int height = 0;
};

enum class TextStyle : uint8_t {
    Message,     ///< centred lines
    Statistics,  ///< columns line up
};

/// Wraps `text` (UTF-8) at `max_width` pixels; `font_height` is in pixels, too.
TextImage render_text(const std::string& text, TextStyle style, int font_height, int max_width);

}  // namespace ox::play
