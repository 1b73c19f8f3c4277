#include "fountain/peeling.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace ox::fountain {

void Peeling::index_columns(const CodeParams& params, const RowTable& rows) {
    const uint32_t column_count = params.block_count;
    rows_.assign(rows.size(), Row{});
    column_starts_.assign(column_count + 1U, 0);
    for (uint32_t row = 0; row < rows.size(); ++row) {
        for (const uint16_t column : rows.peel_columns(row))
            ++column_starts_[column + 1U];
    }
    std::partial_sum(column_starts_.begin(), column_starts_.end(), column_starts_.begin());
    column_rows_.resize(column_starts_.back());
    std::vector<uint32_t> fill(column_starts_.begin(), column_starts_.end() - 1);
    for (uint32_t row = 0; row < rows.size(); ++row) {
        for (const uint16_t column : rows.peel_columns(row)) {
            column_rows_[fill[column]++] = static_cast<uint16_t>(row);
            rows_[row].sum ^= column;
            ++rows_[row].unsolved;
        }
    }
    solved_.assign(column_count, false);
    group_parent_.resize(column_count);
    std::iota(group_parent_.begin(), group_parent_.end(), uint16_t{0});
    group_size_.assign(column_count, 1);
    groups_by_size_.assign(2, {});
    columns_by_degree_.clear();
}

uint16_t Peeling::group_of(uint16_t column) noexcept {
    while (group_parent_[column] != column) {
        group_parent_[column] = group_parent_[group_parent_[column]];
        column = group_parent_[column];
    }
    return column;
}

void Peeling::link_pair(uint16_t a, uint16_t b) {
    a = group_of(a);
    b = group_of(b);
    if (a == b) return;
    if (group_size_[a] < group_size_[b]) std::swap(a, b);
    group_parent_[b] = a;
    group_size_[a] = static_cast<uint16_t>(group_size_[a] + group_size_[b]);
    if (groups_by_size_.size() <= group_size_[a]) groups_by_size_.resize(group_size_[a] + 1U);
    groups_by_size_[group_size_[a]].push_back(a);
}

void Peeling::mark_solved(const RowTable& rows, uint16_t column) {
    solved_[column] = true;
    for (uint32_t at = column_starts_[column]; at < column_starts_[column + 1U]; ++at) {
        Row& row = rows_[column_rows_[at]];
        row.sum ^= column;
        --row.unsolved;
        if (row.unsolved == 1) {
            ready_.push_back(column_rows_[at]);
        } else if (row.unsolved == 2) {
            for (const uint16_t other : rows.peel_columns(column_rows_[at])) {
                if (solved_[other]) continue;
                link_pair(other, row.sum ^ other);
                break;
            }
        }
    }
}

void Peeling::peel_ready_rows(const RowTable& rows) {
    while (!ready_.empty()) {
        const uint32_t row = ready_.back();
        ready_.pop_back();
        if (rows_[row].unsolved != 1) continue;  // its column was solved by another row
        const uint16_t column = rows_[row].sum;
        rows_[row].used = true;
        steps_.push_back({static_cast<uint16_t>(row), column});
        mark_solved(rows, column);
    }
}

// The column whose solution solves the most others; without pairs, the one in the most rows.
uint16_t Peeling::pick_column() {
    while (groups_by_size_.size() > 2) {
        std::vector<uint16_t>& largest = groups_by_size_.back();
        if (largest.empty()) {
            groups_by_size_.pop_back();
            continue;
        }
        const uint16_t root = largest.back();
        largest.pop_back();
        const bool current = group_parent_[root] == root && !solved_[root] &&
                             group_size_[root] + 1U == groups_by_size_.size();
        if (current) return root;
    }
    if (columns_by_degree_.empty()) sort_unsolved_columns();
    while (solved_[columns_by_degree_.back()])
        columns_by_degree_.pop_back();
    return columns_by_degree_.back();
}

void Peeling::sort_unsolved_columns() {
    for (uint32_t column = 0; column < solved_.size(); ++column) {
        if (!solved_[column]) columns_by_degree_.push_back(static_cast<uint16_t>(column));
    }
    std::stable_sort(columns_by_degree_.begin(), columns_by_degree_.end(),
                     [this](uint16_t a, uint16_t b) {
                         return column_starts_[a + 1U] - column_starts_[a] <
                                column_starts_[b + 1U] - column_starts_[b];
                     });
}

void Peeling::run(const CodeParams& params, const RowTable& rows) {
    steps_.clear();
    deferred_columns_.clear();
    deferred_rows_.clear();
    ready_.clear();
    index_columns(params, rows);
    for (uint32_t row = 0; row < rows.size(); ++row) {
        if (rows_[row].unsolved == 1) ready_.push_back(row);
        if (rows_[row].unsolved == 2) {
            const auto columns = rows.peel_columns(row);
            link_pair(columns[0], columns[1]);
        }
    }
    peel_ready_rows(rows);
    while (steps_.size() + deferred_columns_.size() < params.block_count) {
        const uint16_t column = pick_column();
        deferred_columns_.push_back(column);
        mark_solved(rows, column);
        peel_ready_rows(rows);
    }
    for (uint32_t row = 0; row < rows.size(); ++row) {
        if (!rows_[row].used) deferred_rows_.push_back(row);
    }
}

}  // namespace ox::fountain
