#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ox {

/// A mouse pointer's picture: width x height words with blue in the lowest byte and alpha in the
/// highest, premultiplied. The hot spot is the pixel that points.
struct CursorImage {
    uint32_t width = 0;
    uint32_t height = 0;
    int hot_x = 0;
    int hot_y = 0;
    std::vector<uint32_t> pixels;

    [[nodiscard]] bool visible() const;
};

/// A BGRA picture of width x height pixels without row padding.
struct PictureView {
    uint8_t* pixels = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// Draws a pointer onto a picture, clipped to it, and removes it again. Pure.
class CursorOverlay {
  public:
    /// Puts the hot spot at (x, y) and saves the pixels below. One pointer at a time.
    void draw(PictureView picture, const CursorImage& cursor, int x, int y);

    void restore(PictureView picture);

    /// The picture that was drawn on is gone.
    void reset() { width_ = 0; }

  private:
    // The covered area; none while the width is 0.
    uint32_t left_ = 0;
    uint32_t top_ = 0;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    std::vector<uint32_t> below_;
};

}  // namespace ox
