#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "launcher/video_decoder.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

namespace ox::test {

/// Coloured cells in the top left of a screen that change one at a time, each change in one
/// request. What a capture sees is therefore exactly the screen after some number of changes, and a
/// decoded picture can be traced back to that number.
class Mosaic {
  public:
    static constexpr int kWidth = 640;
    static constexpr int kHeight = 352;
    /// "640x352x24", for Xvfb.
    static std::string screen(int depth);

    /// `depth` is 24 or 16.
    Mosaic(const std::string& display, int depth);

    /// Makes `count` changes.
    void change(size_t count = 1);
    [[nodiscard]] size_t changes() const { return history_.size(); }

    /// After how many changes, at least `from`, the screen looked like `picture`; nothing when it
    /// never did, up to now.
    [[nodiscard]] std::optional<size_t> state_of(const launcher::DecodedPicture& picture,
                                                 size_t from) const;

    [[nodiscard]] XPainter& painter() { return painter_; }

  private:
    static constexpr int kCell = 16;
    static constexpr int kColumns = kWidth / kCell;
    static constexpr int kRows = kHeight / kCell;
    static constexpr size_t kCells = size_t{kColumns} * kRows;

    /// Mean Y, U and V of a cell.
    using Yuv = std::array<double, 3>;

    [[nodiscard]] static bool fits(const Yuv& seen, size_t change);

    int depth_;
    XPainter painter_;
    std::vector<size_t> history_;  ///< the cell of each change
};

}  // namespace ox::test
