#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ox {

/// A mouse pointer's picture: width x height words with blue in the lowest byte and alpha in the
/// highest, colours multiplied by it. The hot spot is the pixel that points.
struct CursorImage {
    uint32_t width = 0;
    uint32_t height = 0;
    int hot_x = 0;
    int hot_y = 0;
    std::vector<uint32_t> pixels;

    /// Whether any of it can be seen.
    [[nodiscard]] bool visible() const;
};

/// A BGRA picture of width x height pixels without row padding.
struct PictureView {
    uint8_t* pixels = nullptr;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// Lays a pointer over a picture, as far as it lies inside, and takes it off again. Pure.
class CursorOverlay {
  public:
    /// Blends the pointer so that its hot spot comes to lie at (x, y), and keeps what was there.
    /// One pointer at a time.
    void draw(PictureView picture, const CursorImage& cursor, int x, int y);

    /// Puts back what was below the pointer, if one was drawn.
    void restore(PictureView picture);

    /// The picture that was drawn on is gone.
    void forget() { width_ = 0; }

  private:
    // What was covered; nothing while the width is 0.
    uint32_t left_ = 0;
    uint32_t top_ = 0;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    std::vector<uint32_t> below_;
};

}  // namespace ox
