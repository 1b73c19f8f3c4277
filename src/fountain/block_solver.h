#pragma once

#include "fountain/blocks.h"
#include "fountain/matrix_solver.h"

namespace ox::fountain {

class BlockSolver {
  public:
    /// `matrix` is solved; `blocks` receives its columns() intermediate blocks of `block_bytes`.
    /// All outlive the solver.
    BlockSolver(const MatrixSolver& matrix, const BlockSource& source, BlockBuffer& blocks,
                size_t block_bytes)
        : matrix_(matrix), source_(source), blocks_(blocks), bytes_(block_bytes) {}

    void run();

  private:
    void start_peeled_columns();
    void start_sparse_pivots();
    void start_dense_pivots();
    void eliminate_below();
    void solve_heavy_columns();
    void substitute_above();
    void finish_peeled_columns();

    void eliminate_window(uint32_t first, uint32_t count);
    void substitute_window(uint32_t first, uint32_t count);
    void fill_window_sums(uint32_t first, uint32_t count);
    [[nodiscard]] uint32_t window_size() const noexcept;
    [[nodiscard]] uint8_t* elimination_block(uint32_t column) noexcept {
        return blocks_.at(matrix_.block_of(column));
    }

    const MatrixSolver& matrix_;
    const BlockSource& source_;
    BlockBuffer& blocks_;
    size_t bytes_;
    BlockBuffer window_sums_;  ///< entry i: the sum of the window's columns whose bit is set in i
};

}  // namespace ox::fountain
