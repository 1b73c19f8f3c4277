#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "fountain/blocks.h"
#include "fountain/code_params.h"

namespace ox::fountain {

/// The code of a small block count as a table: every block as a sum of multiples of source blocks.
/// Much quicker than peeling and elimination, with the same bytes.
class DirectCode {
  public:
    static constexpr uint32_t kMaxBlocks = 32;

    using Factors = std::array<uint8_t, kMaxBlocks>;

    /// Computed once in a process; any thread. Null above kMaxBlocks. Throws std::bad_alloc.
    static const DirectCode* find(uint32_t block_count);

    [[nodiscard]] uint32_t block_count() const noexcept { return params_.block_count; }

    [[nodiscard]] Factors factors(uint32_t id) const noexcept;

  private:
    bool compute(uint32_t block_count);

    CodeParams params_;
    BlockBuffer intermediate_factors_;  ///< per intermediate block, Factors
};

/// The missing source blocks as sums of the received blocks.
// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): filled as far as it is read
class DirectSolution {
  public:
    /// Different ids, at most twice the block count. Returns how many blocks are still missing.
    uint32_t solve(const DirectCode& code, std::span<const uint32_t> ids) noexcept;

    [[nodiscard]] std::span<const uint8_t> missing() const noexcept {
        return {missing_.data(), missing_count_};
    }

    /// Of missing block number `index`: one per received block, in their order.
    [[nodiscard]] std::span<const uint8_t> factors(size_t index) const noexcept {
        return {rows_[index].right.data(), received_count_};
    }

  private:
    static constexpr size_t kMaxReceived = size_t{2} * DirectCode::kMaxBlocks;

    /// A repair block: what it holds of the missing blocks and how it was made of received blocks.
    struct Row {
        DirectCode::Factors left;
        std::array<uint8_t, kMaxReceived> right;
    };

    void load_rows(const DirectCode& code, std::span<const uint32_t> ids) noexcept;
    bool take_pivot(size_t rank, size_t column) noexcept;
    void add_scaled(Row& row, uint8_t factor, const Row& other) const noexcept;

    std::array<uint8_t, DirectCode::kMaxBlocks> missing_;
    size_t missing_count_ = 0;
    size_t received_count_ = 0;
    std::array<Row, kMaxReceived> rows_;
    size_t row_count_ = 0;
};

}  // namespace ox::fountain
