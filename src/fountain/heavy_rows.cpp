#include "fountain/heavy_rows.h"

#include <algorithm>
#include <utility>

#include "fountain/gf256.h"

namespace ox::fountain {
namespace {

struct HeavyRow {
    std::array<uint8_t, kMaxHeavyColumns> left{};   ///< coefficients of the heavy columns
    std::array<uint8_t, kMaxHeavyColumns> right{};  ///< factors of the pivot rows' right-hand sides
};
using HeavyMatrix = std::array<HeavyRow, kHeavyRows>;

template <size_t kSize>
void scale(std::array<uint8_t, kSize>& row, uint8_t factor) {
    for (uint8_t& value : row)
        value = gf256_mul(value, factor);
}

template <size_t kSize>
void add_scaled(std::array<uint8_t, kSize>& row, uint8_t factor,
                const std::array<uint8_t, kSize>& other) {
    for (size_t i = 0; i < kSize; ++i)
        row[i] ^= gf256_mul(factor, other[i]);
}

// A narrow matrix uses the last columns of the table, so that the unit matrix is always in it.
HeavyMatrix load_matrix(uint16_t heavy_columns) {
    HeavyMatrix matrix;
    for (size_t row = 0; row < kHeavyRows; ++row) {
        std::copy(kHeavyMatrix[row].end() - heavy_columns, kHeavyMatrix[row].end(),
                  matrix[row].left.begin());
    }
    return matrix;
}

void eliminate_pivot_columns(HeavyMatrix& matrix, const BinaryEchelon& echelon,
                             uint16_t heavy_columns) {
    const uint32_t first = echelon.columns() - heavy_columns;
    for (uint16_t column = 0; column < heavy_columns; ++column) {
        const uint32_t pivot = echelon.pivot_row(first + column);
        if (pivot == BinaryEchelon::kNone) continue;
        for (HeavyRow& row : matrix) {
            const uint8_t factor = std::exchange(row.left[column], uint8_t{0});
            if (factor == 0) continue;
            row.right[column] = factor;
            for (uint16_t other = column + 1U; other < heavy_columns; ++other) {
                if (echelon.bit(pivot, first + other)) row.left[other] ^= factor;
            }
        }
    }
}

// Brings row `rank` to a one in `column` and the other rows to a zero. False if no row can.
bool take_pivot(HeavyMatrix& matrix, size_t rank, uint16_t column) {
    const auto found = std::find_if(matrix.begin() + static_cast<ptrdiff_t>(rank), matrix.end(),
                                    [&](const HeavyRow& row) { return row.left[column] != 0; });
    if (found == matrix.end()) return false;
    std::swap(*found, matrix[rank]);
    HeavyRow& pivot = matrix[rank];
    const uint8_t inverse = gf256_inv(pivot.left[column]);
    scale(pivot.left, inverse);
    scale(pivot.right, inverse);
    for (size_t row = 0; row < matrix.size(); ++row) {
        if (row == rank) continue;
        const uint8_t factor = matrix[row].left[column];
        add_scaled(matrix[row].left, factor, pivot.left);
        add_scaled(matrix[row].right, factor, pivot.right);
    }
    return true;
}

}  // namespace

bool HeavySolution::solve(const BinaryEchelon& echelon, uint16_t heavy_columns) {
    const uint32_t first = echelon.columns() - heavy_columns;
    unknown_count_ = 0;
    for (uint16_t column = 0; column < heavy_columns; ++column) {
        if (echelon.pivot_row(first + column) != BinaryEchelon::kNone) continue;
        if (unknown_count_ == kHeavyRows) return false;
        unknowns_[unknown_count_++].heavy_column = column;
    }
    HeavyMatrix matrix = load_matrix(heavy_columns);
    eliminate_pivot_columns(matrix, echelon, heavy_columns);
    for (size_t rank = 0; rank < unknown_count_; ++rank) {
        if (!take_pivot(matrix, rank, unknowns_[rank].heavy_column)) return false;
    }
    for (size_t i = 0; i < unknown_count_; ++i)
        unknowns_[i].factors = matrix[i].right;
    return true;
}

}  // namespace ox::fountain
