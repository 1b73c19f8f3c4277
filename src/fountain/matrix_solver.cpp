#include "fountain/matrix_solver.h"

#include <algorithm>
#include <array>

namespace ox::fountain {
namespace {

constexpr uint32_t kNoColumn = UINT32_MAX;

void flip_bit(uint64_t* bits, size_t column) noexcept {
    bits[column / 64] ^= uint64_t{1} << (column % 64);
}

/// Sums rows of words, four words at a time.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled as far as it is read
class WordSum {
  public:
    void add(const uint64_t* row) noexcept { rows_[count_++] = row; }

    void store(uint64_t* out, size_t words) const noexcept {
        for (size_t word = 0; word < words; word += 4) {
            std::array<uint64_t, 4> sum{};
            for (size_t i = 0; i < count_; ++i) {
                for (size_t k = 0; k < 4; ++k)
                    sum[k] ^= rows_[i][word + k];
            }
            std::copy(sum.begin(), sum.end(), out + word);
        }
    }

  private:
    std::array<const uint64_t*, kMaxRowWeight> rows_;
    size_t count_ = 0;
};

void add_words(uint64_t* target, const uint64_t* source, size_t words) noexcept {
    for (size_t i = 0; i < words; ++i)
        target[i] ^= source[i];
}

}  // namespace

void MatrixSolver::reset(const CodeParams& params) {
    params_ = params;
    rows_.reset(params.block_count + kHeavyRows);
}

void MatrixSolver::index_deferred_columns() {
    deferred_index_.assign(params_.block_count, kPeeled);
    uint16_t index = 0;
    for (const uint16_t column : peeling_.deferred_columns())
        deferred_index_[column] = index++;
}

void MatrixSolver::add_column(uint64_t* bits, uint16_t column) const noexcept {
    if (is_peeled(column)) {
        add_words(bits, compressed_.data() + column * words_, words_);
    } else {
        flip_bit(bits, deferred_index_[column]);
    }
}

// Writes a row as the sum of elimination columns that it is; its column `own`, if any, is left out.
void MatrixSolver::compress_row(uint64_t* bits, uint32_t row, uint32_t own) const noexcept {
    WordSum peeled;
    for (const uint16_t column : rows_.peel_columns(row)) {
        if (column != own && is_peeled(column)) peeled.add(compressed_.data() + column * words_);
    }
    peeled.store(bits, words_);
    for (const uint16_t column : rows_.peel_columns(row)) {
        if (!is_peeled(column)) flip_bit(bits, deferred_index_[column]);
    }
    const size_t first_mix = peeling_.deferred_columns().size();
    for (const uint16_t column : rows_.mix_columns(row))
        flip_bit(bits, first_mix + column);
}

void MatrixSolver::compress_peeled_columns() {
    compressed_.resize(params_.block_count * words_);
    for (const auto& [row, column] : peeling_.steps()) {
        compress_row(compressed_.data() + column * words_, row, column);
    }
}

void MatrixSolver::insert_dense_rows() {
    const size_t first_mix = peeling_.deferred_columns().size();
    std::vector<uint64_t> dense(params_.dense_count * words_);
    walk_dense_rows(
        params_, [this] { std::fill(scratch_.begin(), scratch_.end(), uint64_t{0}); },
        [this](uint16_t column) { add_column(scratch_.data(), column); },
        [&](uint16_t row) { add_words(dense.data() + row * words_, scratch_.data(), words_); });
    for (uint32_t row = 0; row < params_.dense_count; ++row) {
        uint64_t* const bits = dense.data() + row * words_;
        flip_bit(bits, first_mix + row);
        echelon_.insert({bits, words_}, kDenseTag + row);
    }
}

bool MatrixSolver::finish() {
    const uint32_t binary_columns = echelon_.columns() - params_.heavy_columns();
    for (uint32_t column = 0; column < binary_columns; ++column) {
        if (echelon_.pivot_row(column) == BinaryEchelon::kNone) return false;
    }
    return heavy_.solve(echelon_, params_.heavy_columns());
}

bool MatrixSolver::solve() {
    peeling_.run(params_, rows_);
    index_deferred_columns();
    const size_t deferred = peeling_.deferred_columns().size();
    const size_t columns = deferred + params_.mix_count;
    echelon_.reset(static_cast<uint32_t>(columns), columns);
    words_ = echelon_.words_per_row();
    scratch_.assign(words_, 0);
    compress_peeled_columns();
    for (const uint32_t row : peeling_.deferred_rows()) {
        compress_row(scratch_.data(), row, kNoColumn);
        echelon_.insert(scratch_, row);
    }
    insert_dense_rows();
    return finish();
}

bool MatrixSolver::add_extra_row(uint32_t id, bool& kept) {
    const uint32_t row = rows_.size();
    rows_.append(params_, id);
    compress_row(scratch_.data(), row, kNoColumn);
    kept = echelon_.insert(scratch_, row) != BinaryEchelon::kNone;
    if (!kept) {
        rows_.drop_last();
        return false;
    }
    return finish();
}

}  // namespace ox::fountain
