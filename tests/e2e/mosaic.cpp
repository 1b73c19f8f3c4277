#include "e2e/mosaic.h"

extern "C" {
#include <libavutil/frame.h>
}

#include <cmath>

namespace ox::test {
namespace {

/// Largest difference that the codec may make to a cell's mean.
constexpr double kTolerance = 12.0;

double mean(const uint8_t* plane, int stride, int x, int y, int size) {
    int sum = 0;
    for (int row = y; row < y + size; ++row) {
        for (int column = x; column < x + size; ++column)
            sum += plane[row * stride + column];
    }
    return static_cast<double>(sum) / (size * size);
}

}  // namespace

std::string Mosaic::screen(int depth) {
    return std::to_string(kWidth) + "x" + std::to_string(kHeight) + "x" + std::to_string(depth);
}

Mosaic::Mosaic(const std::string& display, int depth) : depth_(depth), painter_(display) {
    for (size_t i = 0; i < kCells; ++i)
        change();
}

// Neighbours in time and the successive colours of one cell are far apart: the brightness goes
// between dark and bright with each turn through the cells, the hue changes with each change.
Mosaic::Colour Mosaic::colour_of(size_t change) {
    const bool bright = (change / kCells + change) % 2 == 0;
    const auto hash = static_cast<uint32_t>(change) * 2654435761U;
    const uint32_t base = bright ? 20 : 2;
    return {base + (hash >> 8) % 10, 2 * (base + (hash >> 16) % 10), base + (hash >> 24) % 10};
}

void Mosaic::change(size_t count) {
    for (; count > 0; --count) {
        const size_t number = history_.size();
        const size_t cell = number * 7 % kCells;  // 7 and kCells have no common factor
        const auto [red, green, blue] = colour_of(number);
        const uint32_t pixel =
            depth_ == 16 ? red << 11 | green << 5 | blue
                         : (red * 255 / 31) << 16 | (green * 255 / 63) << 8 | blue * 255 / 31;
        painter_.fill(static_cast<int>(cell % kColumns) * kCell,
                      static_cast<int>(cell / kColumns) * kCell, kCell, kCell, pixel);
        history_.push_back(cell);
    }
}

// BT.601, limited range.
Mosaic::Yuv Mosaic::to_yuv(const Colour& colour) {
    const double r = colour.red / 31.0;
    const double g = colour.green / 63.0;
    const double b = colour.blue / 31.0;
    const double y = 0.299 * r + 0.587 * g + 0.114 * b;
    return {16 + 219 * y, 128 + 224 * (b - y) / 1.772, 128 + 224 * (r - y) / 1.402};
}

Mosaic::Means Mosaic::cell_means(const launcher::DecodedPicture& picture) {
    const AVFrame& image = picture.image;
    Means means;
    for (size_t cell = 0; cell < kCells; ++cell) {
        const int x = static_cast<int>(cell % kColumns) * kCell;
        const int y = static_cast<int>(cell / kColumns) * kCell;
        means[cell] = {mean(image.data[0], image.linesize[0], x, y, kCell),
                       mean(image.data[1], image.linesize[1], x / 2, y / 2, kCell / 2),
                       mean(image.data[2], image.linesize[2], x / 2, y / 2, kCell / 2)};
    }
    return means;
}

std::optional<size_t> Mosaic::state_of(const launcher::DecodedPicture& picture, size_t from) const {
    if (picture.width < kWidth || picture.height < kHeight) return std::nullopt;
    const Means means = cell_means(picture);
    const auto fits = [&](size_t cell, size_t change) {
        const Yuv wanted = to_yuv(colour_of(change));
        const Yuv& seen = means[cell];
        return std::abs(seen.y - wanted.y) < kTolerance &&
               std::abs(seen.u - wanted.u) < kTolerance && std::abs(seen.v - wanted.v) < kTolerance;
    };
    std::array<bool, kCells> fitting{};
    size_t fitting_cells = 0;
    for (size_t change = 0; change < history_.size(); ++change) {
        const size_t cell = history_[change];
        fitting_cells -= fitting[cell] ? 1 : 0;
        fitting[cell] = fits(cell, change);
        fitting_cells += fitting[cell] ? 1 : 0;
        if (change + 1 >= from && fitting_cells == kCells) return change + 1;
    }
    return std::nullopt;
}

}  // namespace ox::test
