#include "fountain/block_solver.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace ox::fountain {
namespace {

constexpr uint32_t kNone = BinaryEchelon::kNone;
constexpr uint32_t kMaxWindow = 6;

}  // namespace

void BlockSolver::run() {
    start_peeled_columns();
    start_sparse_pivots();
    start_dense_pivots();
    eliminate_below();
    solve_heavy_columns();
    substitute_above();
    finish_peeled_columns();
}

// Peeled columns as if all columns of the elimination were zero.
void BlockSolver::start_peeled_columns() {
    for (const auto& [row, column] : matrix_.peeling().steps()) {
        BlockSum sum(blocks_.at(column), bytes_);
        sum.add(source_.at(row));
        for (const uint16_t other : matrix_.rows().peel_columns(row)) {
            if (other != column && matrix_.is_peeled(other)) sum.add(blocks_.at(other));
        }
    }
}

// From here on the block of an elimination column holds the right-hand side of the row that has its
// pivot there, until the column itself is solved.
void BlockSolver::start_sparse_pivots() {
    const BinaryEchelon& echelon = matrix_.echelon();
    for (uint32_t column = 0; column < echelon.columns(); ++column) {
        const uint32_t pivot = echelon.pivot_row(column);
        if (pivot == kNone) {
            std::memset(elimination_block(column), 0, bytes_);
            continue;
        }
        if (echelon.tag(pivot) >= MatrixSolver::kDenseTag) continue;
        const uint32_t row = echelon.tag(pivot);
        BlockSum sum(elimination_block(column), bytes_);
        sum.add(source_.at(row));
        for (const uint16_t other : matrix_.rows().peel_columns(row)) {
            if (matrix_.is_peeled(other)) sum.add(blocks_.at(other));
        }
    }
}

void BlockSolver::start_dense_pivots() {
    const BinaryEchelon& echelon = matrix_.echelon();
    std::vector<uint8_t*> targets(matrix_.params().dense_count, nullptr);
    for (uint32_t column = 0; column < echelon.columns(); ++column) {
        const uint32_t pivot = echelon.pivot_row(column);
        if (pivot == kNone || echelon.tag(pivot) < MatrixSolver::kDenseTag) continue;
        uint8_t* const block = elimination_block(column);
        std::memset(block, 0, bytes_);
        targets[echelon.tag(pivot) - MatrixSolver::kDenseTag] = block;
    }
    BlockBuffer running;
    running.reset(1, bytes_);
    walk_dense_rows(
        matrix_.params(), [&] { std::memset(running.at(0), 0, bytes_); },
        [&](uint16_t column) {
            if (matrix_.is_peeled(column)) gf256_add_mem(running.at(0), blocks_.at(column), bytes_);
        },
        [&](uint16_t row) {
            if (targets[row] != nullptr) gf256_add_mem(targets[row], running.at(0), bytes_);
        });
}

// A window costs 2^size additions once and saves size/2 - 1 of them per row.
uint32_t BlockSolver::window_size() const noexcept {
    const uint32_t columns = matrix_.echelon().columns();
    uint32_t size = 1;
    while (size < kMaxWindow && (columns >> (size + 2U)) > size)
        ++size;
    return size;
}

void BlockSolver::fill_window_sums(uint32_t first, uint32_t count) {
    for (uint32_t i = 1; i < 1U << count; ++i) {
        const auto low = static_cast<uint32_t>(std::countr_zero(i));
        const uint8_t* const block = elimination_block(first + low);
        const uint32_t rest = i & (i - 1);
        BlockSum sum(window_sums_.at(i), bytes_);
        sum.add(block);
        if (rest != 0) sum.add(window_sums_.at(rest));
    }
}

void BlockSolver::eliminate_window(uint32_t first, uint32_t count) {
    const BinaryEchelon& echelon = matrix_.echelon();
    for (uint32_t column = first + 1; column < first + count; ++column) {
        const uint32_t pivot = echelon.pivot_row(column);
        if (pivot == kNone) continue;
        for (uint32_t other = first; other < column; ++other) {
            if (!echelon.bit(pivot, other)) continue;
            gf256_add_mem(elimination_block(column), elimination_block(other), bytes_);
        }
    }
    if (first + count == echelon.columns()) return;
    fill_window_sums(first, count);
    for (uint32_t column = first + count; column < echelon.columns(); ++column) {
        const uint32_t pivot = echelon.pivot_row(column);
        if (pivot == kNone) continue;
        const uint32_t bits = echelon.bits(pivot, first, count);
        if (bits != 0) gf256_add_mem(elimination_block(column), window_sums_.at(bits), bytes_);
    }
}

void BlockSolver::eliminate_below() {
    const uint32_t columns = matrix_.echelon().columns();
    const uint32_t window = window_size();
    window_sums_.reset(size_t{1} << window, bytes_);
    for (uint32_t first = 0; first < columns; first += window) {
        eliminate_window(first, std::min(window, columns - first));
    }
}

void BlockSolver::solve_heavy_columns() {
    const BinaryEchelon& echelon = matrix_.echelon();
    const uint16_t heavy_columns = matrix_.params().heavy_columns();
    const uint32_t first = echelon.columns() - heavy_columns;
    for (const HeavySolution::Unknown& unknown : matrix_.heavy().unknowns()) {
        uint8_t* const block = elimination_block(first + unknown.heavy_column);
        for (uint16_t column = 0; column < heavy_columns; ++column) {
            if (unknown.factors[column] == 0) continue;
            gf256_muladd_mem(block, unknown.factors[column], elimination_block(first + column),
                             bytes_);
        }
    }
}

void BlockSolver::substitute_window(uint32_t first, uint32_t count) {
    const BinaryEchelon& echelon = matrix_.echelon();
    for (uint32_t column = first + count; column-- > first;) {
        const uint32_t pivot = echelon.pivot_row(column);
        if (pivot == kNone) continue;
        for (uint32_t other = column + 1; other < first + count; ++other) {
            if (!echelon.bit(pivot, other)) continue;
            gf256_add_mem(elimination_block(column), elimination_block(other), bytes_);
        }
    }
    if (first == 0) return;
    fill_window_sums(first, count);
    for (uint32_t column = 0; column < first; ++column) {
        const uint32_t pivot = echelon.pivot_row(column);
        if (pivot == kNone) continue;
        const uint32_t bits = echelon.bits(pivot, first, count);
        if (bits != 0) gf256_add_mem(elimination_block(column), window_sums_.at(bits), bytes_);
    }
}

void BlockSolver::substitute_above() {
    const uint32_t window = window_size();
    for (uint32_t end = matrix_.echelon().columns(); end > 0;) {
        const uint32_t count = std::min(window, end);
        end -= count;
        substitute_window(end, count);
    }
}

void BlockSolver::finish_peeled_columns() {
    const size_t first_mix = matrix_.params().block_count;
    for (const auto& [row, column] : matrix_.peeling().steps()) {
        BlockSum sum(blocks_.at(column), bytes_);
        sum.add(source_.at(row));
        for (const uint16_t mix : matrix_.rows().mix_columns(row)) {
            sum.add(blocks_.at(first_mix + mix));
        }
        for (const uint16_t other : matrix_.rows().peel_columns(row)) {
            if (other != column) sum.add(blocks_.at(other));
        }
    }
}

}  // namespace ox::fountain
