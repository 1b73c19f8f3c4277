#include "e2e/mosaic.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <cmath>

namespace ox::test {
namespace {

/// Largest difference that the codec may make to a cell's mean.
constexpr double kTolerance = 12.0;

struct Colour {
    uint32_t red, green, blue;  ///< 5, 6 and 5 bits, so that both depths have it exactly
};

double mean(const uint8_t* plane, int stride, int x, int y, int size) {
    int sum = 0;
    for (int row = y; row < y + size; ++row) {
        for (int column = x; column < x + size; ++column)
            sum += plane[row * stride + column];
    }
    return static_cast<double>(sum) / (size * size);
}

// Neighbours in time and the successive colours of one cell are far apart: the brightness goes
// between dark and bright with each of the `turn`s through the cells, the hue with each change.
Colour colour_of(size_t change, size_t turn) {
    const bool bright = (turn + change) % 2 == 0;
    const auto hash = static_cast<uint32_t>(change) * 2654435761U;
    const uint32_t base = bright ? 20 : 2;
    return {base + (hash >> 8) % 10, 2 * (base + (hash >> 16) % 10), base + (hash >> 24) % 10};
}

}  // namespace

std::string Mosaic::screen(int depth) {
    return std::to_string(kWidth) + "x" + std::to_string(kHeight) + "x" + std::to_string(depth);
}

Mosaic::Mosaic(const std::string& display, int depth) : depth_(depth), painter_(display) {
    change(kCells);
}

void Mosaic::change(size_t count) {
    for (; count > 0; --count) {
        const size_t number = history_.size();
        const size_t cell = number * 7 % kCells;  // 7 and kCells have no common factor
        const auto [red, green, blue] = colour_of(number, number / kCells);
        const uint32_t pixel =
            depth_ == 16 ? red << 11 | green << 5 | blue
                         : (red * 255 / 31) << 16 | (green * 255 / 63) << 8 | blue * 255 / 31;
        painter_.fill(static_cast<int>(cell % kColumns) * kCell,
                      static_cast<int>(cell / kColumns) * kCell, kCell, kCell, pixel);
        history_.push_back(cell);
    }
}

// BT.601, limited range.
bool Mosaic::fits(const Yuv& seen, size_t change) {
    const auto [red, green, blue] = colour_of(change, change / kCells);
    const double r = red / 31.0;
    const double b = blue / 31.0;
    const double y = 0.299 * r + 0.587 * green / 63.0 + 0.114 * b;
    return std::abs(seen[0] - (16 + 219 * y)) < kTolerance &&
           std::abs(seen[1] - (128 + 224 * (b - y) / 1.772)) < kTolerance &&
           std::abs(seen[2] - (128 + 224 * (r - y) / 1.402)) < kTolerance;
}

std::optional<size_t> Mosaic::state_of(const launcher::DecodedPicture& picture, size_t from) const {
    if (picture.width < kWidth || picture.height < kHeight) return std::nullopt;
    const AVFrame& image = picture.image;
    std::array<Yuv, kCells> means;
    for (size_t cell = 0; cell < kCells; ++cell) {
        for (size_t plane = 0; plane < 3; ++plane) {
            const int size = plane == 0 ? kCell : kCell / 2;
            means[cell][plane] = mean(image.data[plane], image.linesize[plane],
                                      static_cast<int>(cell % kColumns) * size,
                                      static_cast<int>(cell / kColumns) * size, size);
        }
    }
    std::array<bool, kCells> fitting{};
    size_t fitting_cells = 0;
    for (size_t change = 0; change < history_.size(); ++change) {
        const size_t cell = history_[change];
        fitting_cells -= fitting[cell] ? 1 : 0;
        fitting[cell] = fits(means[cell], change);
        fitting_cells += fitting[cell] ? 1 : 0;
        if (change + 1 >= from && fitting_cells == kCells) return change + 1;
    }
    return std::nullopt;
}

}  // namespace ox::test
