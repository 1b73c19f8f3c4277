#pragma once

#include <cstdint>
#include <vector>

#include "fountain/binary_echelon.h"
#include "fountain/code_rows.h"
#include "fountain/heavy_rows.h"
#include "fountain/peeling.h"

namespace ox::fountain {

/// Solves for the intermediate blocks from received ones: peeling, then elimination of the deferred
/// columns followed by the mix columns. Touches no block data, so an insufficient set is cheap.
class MatrixSolver {
  public:
    /// An echelon row's tag: a row of the row table, or kDenseTag + the number of a dense row.
    static constexpr uint32_t kDenseTag = 0x8000'0000U;

    void reset(const CodeParams& params);

    /// Adds a received block's row; only before the first `solve`.
    void add_row(uint32_t id) { rows_.append(params_, id); }

    /// Solves with the rows added, at least block_count of them. True when they suffice.
    bool solve();

    /// After a failed `solve`; true when the rows now suffice. A dependent row is not `kept`.
    bool add_extra_row(uint32_t id, bool& kept);

    [[nodiscard]] const CodeParams& params() const noexcept { return params_; }
    [[nodiscard]] const RowTable& rows() const noexcept { return rows_; }
    [[nodiscard]] const Peeling& peeling() const noexcept { return peeling_; }
    [[nodiscard]] const BinaryEchelon& echelon() const noexcept { return echelon_; }
    [[nodiscard]] const HeavySolution& heavy() const noexcept { return heavy_; }

    [[nodiscard]] uint32_t block_of(uint32_t column) const noexcept {
        const auto& deferred = peeling_.deferred_columns();
        if (column < deferred.size()) return deferred[column];
        return params_.block_count + column - static_cast<uint32_t>(deferred.size());
    }
    [[nodiscard]] bool is_peeled(uint16_t column) const noexcept {
        return deferred_index_[column] == kPeeled;
    }

  private:
    static constexpr uint16_t kPeeled = 0xffff;

    void index_deferred_columns();
    void compress_peeled_columns();
    void add_column(uint64_t* bits, uint16_t column) const noexcept;
    void compress_row(uint64_t* bits, uint32_t row, uint32_t own) const noexcept;
    void insert_dense_rows();
    bool finish();

    CodeParams params_;
    RowTable rows_;
    Peeling peeling_;
    std::vector<uint16_t> deferred_index_;  ///< per peel column: elimination column or kPeeled
    size_t words_ = 0;
    std::vector<uint64_t> compressed_;  ///< per peel column: its sum of elimination columns
    std::vector<uint64_t> scratch_;
    BinaryEchelon echelon_;
    HeavySolution heavy_;
};

}  // namespace ox::fountain
