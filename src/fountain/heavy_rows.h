#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "fountain/binary_echelon.h"
#include "fountain/tables.h"

namespace ox::fountain {

/// The last columns, where rows with coefficients in GF(256) replace pivots that binary rows lack.
class HeavySolution {
  public:
    /// An unknown as a sum over the heavy columns i with a pivot: factors[i] times the reduced
    /// right-hand side of the pivot row.
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
