#include "fountain/direct_code.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>

#include "fountain/block_solver.h"
#include "fountain/matrix_solver.h"

namespace ox::fountain {

// Encodes the unit vectors: the intermediate blocks are then the factors.
bool DirectCode::compute(uint32_t block_count) {
    params_ = code_params(block_count);
    MatrixSolver matrix;
    matrix.reset(params_);
    for (uint32_t id = 0; id < block_count; ++id)
        matrix.add_row(id);
    if (!matrix.solve()) return false;
    std::array<Factors, kMaxBlocks> units{};
    for (uint32_t i = 0; i < block_count; ++i)
        units[i][i] = 1;
    intermediate_factors_.reset(params_.columns(), sizeof(Factors));
    const BlockSource source{units[0].data(), sizeof(Factors), block_count, nullptr};
    BlockSolver(matrix, source, intermediate_factors_, sizeof(Factors)).run();
    return true;
}

const DirectCode* DirectCode::find(uint32_t block_count) {
    struct Entry {
        std::once_flag once;
        std::unique_ptr<DirectCode> code;
    };
    static std::array<Entry, kMaxBlocks + 1> entries;
    if (block_count > kMaxBlocks) return nullptr;
    Entry& entry = entries[block_count];
    std::call_once(entry.once, [&] {
        auto code = std::make_unique<DirectCode>();
        if (code->compute(block_count)) entry.code = std::move(code);
    });
    return entry.code.get();
}

DirectCode::Factors DirectCode::factors(uint32_t id) const noexcept {
    Factors sum{};
    if (id < params_.block_count) {
        sum[id] = 1;
        return sum;
    }
    const auto add = [&](size_t block) {
        const uint8_t* const factors = intermediate_factors_.at(block);
        for (size_t i = 0; i < sum.size(); ++i)
            sum[i] ^= factors[i];
    };
    const CodeRow row(params_, id);
    row.for_each_peel_column(add);
    for (const uint16_t column : row.mix_columns())
        add(size_t{params_.block_count} + column);
    return sum;
}

// One row per received repair block, with the received source blocks moved to its right side.
void DirectSolution::load_rows(const DirectCode& code, std::span<const uint32_t> ids) noexcept {
    const uint32_t block_count = code.block_count();
    constexpr uint8_t kMissing = 0xff;
    std::array<uint8_t, DirectCode::kMaxBlocks> place{};  // of a source block among the received
    place.fill(kMissing);
    for (size_t i = 0; i < ids.size(); ++i) {
        if (ids[i] < block_count) place[ids[i]] = static_cast<uint8_t>(i);
    }
    missing_count_ = 0;
    for (uint32_t id = 0; id < block_count; ++id) {
        if (place[id] == kMissing) missing_[missing_count_++] = static_cast<uint8_t>(id);
    }
    received_count_ = ids.size();
    row_count_ = 0;
    for (size_t i = 0; i < ids.size(); ++i) {
        if (ids[i] < block_count) continue;
        Row& row = rows_[row_count_++];
        std::fill_n(row.right.begin(), received_count_, uint8_t{0});
        row.right[i] = 1;
        const DirectCode::Factors factors = code.factors(ids[i]);
        for (uint32_t id = 0; id < block_count; ++id) {
            if (place[id] != kMissing) row.right[place[id]] = factors[id];
        }
        for (size_t m = 0; m < missing_count_; ++m)
            row.left[m] = factors[missing_[m]];
    }
}

void DirectSolution::add_scaled(Row& row, uint8_t factor, const Row& other) const noexcept {
    if (factor == 0) return;
    for (size_t i = 0; i < missing_count_; ++i)
        row.left[i] ^= gf256_mul(factor, other.left[i]);
    gf256_muladd_mem(row.right.data(), factor, other.right.data(), received_count_);
}

bool DirectSolution::take_pivot(size_t rank, size_t column) noexcept {
    size_t found = rank;
    while (found < row_count_ && rows_[found].left[column] == 0)
        ++found;
    if (found == row_count_) return false;
    if (found != rank) std::swap(rows_[found], rows_[rank]);
    Row& pivot = rows_[rank];
    const uint8_t inverse = gf256_inv(pivot.left[column]);
    for (size_t i = 0; i < missing_count_; ++i)
        pivot.left[i] = gf256_mul(inverse, pivot.left[i]);
    gf256_mul_mem(pivot.right.data(), pivot.right.data(), inverse, received_count_);
    for (size_t row = 0; row < row_count_; ++row) {
        if (row != rank) add_scaled(rows_[row], rows_[row].left[column], pivot);
    }
    return true;
}

uint32_t DirectSolution::solve(const DirectCode& code, std::span<const uint32_t> ids) noexcept {
    load_rows(code, ids);
    size_t rank = 0;
    for (size_t column = 0; column < missing_count_; ++column) {
        if (take_pivot(rank, column)) ++rank;
    }
    return static_cast<uint32_t>(missing_count_ - rank);
}

}  // namespace ox::fountain
