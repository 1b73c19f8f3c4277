// The tables and the parts of the matrix that they make: properties that every block count needs.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>
#include <vector>

#include "transport/fountain/binary_echelon.h"
#include "transport/fountain/block_solver.h"
#include "transport/fountain/block_sum.h"
#include "transport/fountain/code_choice.h"
#include "transport/fountain/dense_rows.h"
#include "transport/fountain/direct_code.h"
#include "transport/fountain/gf256.h"
#include "transport/fountain/matrix_solver.h"

namespace ox::fountain {
namespace {

TEST(ColumnWalk, VisitsEveryColumnOnceWhateverTheStep) {
    for (const auto& [count, prime] :
         {std::pair<uint16_t, uint16_t>{2, 2}, {14, 17}, {90, 97}, {96, 97}, {97, 97}}) {
        for (uint16_t step = 1; step < count; ++step) {
            ColumnWalk walk(static_cast<uint16_t>(count - 1), step, count, prime);
            std::set<uint16_t> seen;
            for (uint16_t i = 0; i < count; ++i, walk.advance())
                seen.insert(walk.column());
            ASSERT_EQ(seen.size(), count) << count << " columns in steps of " << step;
            ASSERT_LT(*seen.rbegin(), count);
        }
    }
}

TEST(CodeRow, KeepsToItsColumnsAndTheIntendedWeights) {
    for (const uint32_t block_count : {2U, 3U, 10U, 1000U, 64000U}) {
        const CodeParams params = code_params(block_count);
        constexpr uint32_t kRows = 20000;
        std::array<uint32_t, kMaxRowWeight + 1> by_weight{};
        for (uint32_t id = UINT32_MAX - kRows; id != UINT32_MAX; ++id) {
            const CodeRow row(params, id);
            std::set<uint16_t> peel;
            row.for_each_peel_column([&](uint16_t column) { peel.insert(column); });
            const auto mix = row.mix_columns();
            ASSERT_EQ(peel.size(), row.weight());
            ASSERT_LT(*peel.rbegin(), block_count);
            ASSERT_EQ(std::set(mix.begin(), mix.end()).size(), kMixPerRow);
            ASSERT_LT(*std::max_element(mix.begin(), mix.end()), params.mix_count);
            ++by_weight[row.weight()];
        }
        if (block_count < 1000) continue;
        EXPECT_NEAR(by_weight[1], kRows / 128.0, 50);
        EXPECT_NEAR(by_weight[3], kRows / 6.0, 200);
        EXPECT_NEAR(by_weight[64], kRows / 63.0, 60);
    }
}

// Whatever six columns are left without a pivot, the heavy rows can stand in for them.
TEST(HeavyRows, AnySixColumnsAreIndependent) {
    std::array<bool, kMaxHeavyColumns> chosen{};
    std::fill(chosen.begin(), chosen.begin() + kHeavyRows, true);
    int choices = 0;
    do {
        // Unit rows for the columns not chosen leave the chosen ones to the heavy rows.
        BinaryEchelon echelon;
        echelon.reset(kMaxHeavyColumns, kMaxHeavyColumns);
        for (uint32_t column = 0; column < kMaxHeavyColumns; ++column) {
            const std::array<uint64_t, 1> unit{uint64_t{1} << column};
            if (chosen[column]) continue;
            ASSERT_EQ(echelon.insert(unit, column), column);
        }
        HeavySolution solution;
        ASSERT_TRUE(solution.solve(echelon, kMaxHeavyColumns)) << "choice " << choices;
        ASSERT_EQ(solution.unknowns().size(), kHeavyRows);
        ++choices;
    } while (std::prev_permutation(chosen.begin(), chosen.end()));
    EXPECT_EQ(choices, 18564);
}

TEST(DenseRows, SquarePatternOfEveryTableSeedHasFullRank) {
    for (size_t i = 0; i < kDenseSeeds.size(); ++i) {
        const auto count = static_cast<uint16_t>(4 * i + 2);
        const CodeParams params = code_params_with(count, count, 0, kDenseSeeds[i]);
        const size_t words = (count + 63U) / 64U;
        std::vector<uint64_t> rows(count * words);
        std::vector<uint64_t> sum(words);
        walk_dense_rows(
            params, [&] { std::fill(sum.begin(), sum.end(), uint64_t{0}); },
            [&](uint16_t column) { sum[column / 64U] ^= uint64_t{1} << (column % 64U); },
            [&](uint16_t row) {
                for (size_t w = 0; w < words; ++w)
                    rows[row * words + w] ^= sum[w];
            });
        BinaryEchelon echelon;
        echelon.reset(count, count);
        for (uint16_t row = 0; row < count; ++row) {
            ASSERT_NE(echelon.insert({rows.data() + row * words, words}, row), BinaryEchelon::kNone)
                << count << " rows";
        }
    }
}

TEST(CodeParams, DenseCountsFitTheTablesAtEveryBlockCount) {
    uint16_t previous = 0;
    for (uint32_t block_count = kMinBlocks; block_count <= kMaxBlocks; ++block_count) {
        const CodeParams params = code_params(block_count);
        ASSERT_EQ(params.dense_count % 4, 2) << block_count;
        ASSERT_LT(params.dense_count / 4U, kDenseSeeds.size()) << block_count;
        ASSERT_GE(params.dense_count, previous) << block_count;
        previous = params.dense_count;
    }
    EXPECT_EQ(code_params(64000).block_prime, 64007);
    EXPECT_EQ(code_params(2).block_prime, 2);
}

TEST(MatrixSolver, EncoderMatrixCanBeSolvedForEverySampledBlockCount) {
    MatrixSolver solver;
    const auto solvable = [&solver](uint32_t block_count) {
        const CodeParams params = choose_code(block_count);
        solver.reset(params);
        for (uint32_t id = 0; id < block_count; ++id)
            solver.add_row(id);
        return solver.solve();
    };
    for (uint32_t block_count = 2; block_count <= 300; ++block_count) {
        EXPECT_TRUE(solvable(block_count)) << block_count;
    }
    for (uint32_t block_count = 301; block_count < 64000; block_count += 5 + block_count) {
        EXPECT_TRUE(solvable(block_count)) << block_count;
    }
    EXPECT_TRUE(solvable(64000));
}

// Few blocks go through a table of factors, many through the matrix: the bytes must be the same.
TEST(DirectCode, GivesTheBytesOfTheMatrix) {
    constexpr size_t kBytes = 37;
    for (const uint32_t block_count : {2U, 4U, 9U, 31U, 32U}) {
        const CodeParams params = code_params(block_count);
        std::vector<uint8_t> message(block_count * kBytes);
        for (size_t i = 0; i < message.size(); ++i)
            message[i] = static_cast<uint8_t>(i * i + i / 7);
        MatrixSolver matrix;
        matrix.reset(params);
        for (uint32_t id = 0; id < block_count; ++id)
            matrix.add_row(id);
        ASSERT_TRUE(matrix.solve());
        BlockBuffer blocks;
        blocks.reset(params.columns(), kBytes);
        const BlockSource source{message.data(), kBytes, block_count, nullptr};
        BlockSolver(matrix, source, blocks, kBytes).run();

        const DirectCode* direct = DirectCode::find(block_count);
        ASSERT_NE(direct, nullptr);
        for (uint32_t id = 0; id < block_count + 200; ++id) {
            const CodeRow row(params, id);
            BlockSum sum;
            row.for_each_peel_column([&](uint16_t column) { sum.add(blocks.at(column)); });
            for (const uint16_t column : row.mix_columns()) {
                sum.add(blocks.at(size_t{block_count} + column));
            }
            std::array<uint8_t, kBytes> by_matrix{};
            sum.store(by_matrix.data(), kBytes);

            const DirectCode::Factors factors = direct->factors(id);
            std::array<uint8_t, kBytes> by_factors{};
            for (uint32_t i = 0; i < block_count; ++i) {
                gf256_muladd_mem(by_factors.data(), factors[i], message.data() + i * kBytes,
                                 kBytes);
            }
            ASSERT_EQ(by_factors, by_matrix) << "block " << id << " of " << block_count;
        }
    }
    EXPECT_EQ(DirectCode::find(DirectCode::kMaxBlocks + 1), nullptr);
}

}  // namespace
}  // namespace ox::fountain
