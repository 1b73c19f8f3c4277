#pragma once

#include <cstdint>
#include <vector>

#include "fountain/code_rows.h"

namespace ox::fountain {

/// A row with a single unsolved column solves it, which may leave other rows with one. Without such
/// a row a column is deferred to the elimination.
class Peeling {
  public:
    struct Step {
        uint16_t row;
        uint16_t column;
    };

    /// Every column of `rows` ends up in a step or deferred.
    void run(const CodeParams& params, const RowTable& rows);

    /// The other columns of a step's row are deferred or solved by earlier steps.
    [[nodiscard]] const std::vector<Step>& steps() const noexcept { return steps_; }
    [[nodiscard]] const std::vector<uint16_t>& deferred_columns() const noexcept {
        return deferred_columns_;
    }
    /// The rows that no step uses, in ascending order.
    [[nodiscard]] const std::vector<uint32_t>& deferred_rows() const noexcept {
        return deferred_rows_;
    }

  private:
    // Small, because peeling accesses an array of them at random.
    struct Row {
        uint16_t sum = 0;  ///< of the unsolved columns' numbers, by exclusive or
        uint8_t unsolved = 0;
        bool used = false;
    };

    void index_columns(const CodeParams& params, const RowTable& rows);
    void peel_ready_rows(const RowTable& rows);
    void mark_solved(const RowTable& rows, uint16_t column);
    void link_pair(uint16_t a, uint16_t b);
    uint16_t group_of(uint16_t column) noexcept;
    void sort_unsolved_columns();
    uint16_t pick_column();

    std::vector<Step> steps_;
    std::vector<uint16_t> deferred_columns_;
    std::vector<uint32_t> deferred_rows_;

    std::vector<Row> rows_;
    std::vector<uint32_t> ready_;
    std::vector<bool> solved_;
    std::vector<uint32_t> column_starts_;  ///< per column, into column_rows_
    std::vector<uint16_t> column_rows_;

    // Columns connected by rows with two unsolved columns: solving one solves the whole group.
    std::vector<uint16_t> group_parent_;
    std::vector<uint16_t> group_size_;
    std::vector<std::vector<uint16_t>> groups_by_size_;  ///< roots; entries may be outdated
    std::vector<uint16_t> columns_by_degree_;  ///< ascending, filled when no group is left
};

}  // namespace ox::fountain
