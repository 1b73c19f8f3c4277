#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "fountain/binary_echelon.h"
#include "fountain/tables.h"

namespace ox::fountain {

/// The last columns of the elimination, where heavy rows with coefficients in GF(256) stand in for
/// the pivots that the binary rows could not give.
class HeavySolution {
  public:
    /// An unknown as a sum of pivot rows' reduced right-hand sides: factor times the right-hand
    /// side of the row with its pivot in heavy column i, over all i that have one.
    struct Unknown {
        uint16_t heavy_column = 0;
        std::array<uint8_t, kMaxHeavyColumns> factors{};
    };

    /// Solves the columns without pivot among the last `heavy_columns` of `echelon`. False when
    /// there are more of them than the heavy rows can solve.
    bool solve(const BinaryEchelon& echelon, uint16_t heavy_columns);

    [[nodiscard]] std::span<const Unknown> unknowns() const noexcept {
        return {unknowns_.data(), unknown_count_};
    }

  private:
    std::array<Unknown, kHeavyRows> unknowns_{};
    size_t unknown_count_ = 0;
};

}  // namespace ox::fountain
