#include "transport/fountain/matrix_solver.h"

#include <gtest/gtest.h>

#include <random>

#include "transport/fountain/code_choice.h"
#include "transport/fountain/gf256.h"

namespace ox::fountain {
namespace {

// What peeling defers is for the dense rows to solve, and it varies from receipt to receipt. Where
// the mean came to nine tenths of the dense rows, one decoder in a hundred lacked dozens of blocks
// instead of one.
TEST(MatrixSolver, DenseRowsWellOutnumberWhatPeelingUsuallyDefers) {
    ASSERT_EQ(gf256_init(), 0);
    MatrixSolver solver;
    std::mt19937 random(5);
    constexpr uint32_t kReceipts = 6;
    for (const uint32_t block_count : {30000U, 45000U, 50000U, 64000U}) {
        const CodeParams params = choose_code(block_count);
        size_t deferred = 0;
        for (uint32_t receipt = 0; receipt < kReceipts; ++receipt) {
            std::geometric_distribution<uint32_t> lost(0.3 + 0.1 * receipt);
            solver.reset(params);
            uint32_t id = 0;
            for (uint32_t i = 0; i < block_count; ++i, ++id)
                solver.add_row(id += lost(random));
            solver.solve();
            deferred += solver.peeling().deferred_columns().size();
        }
        EXPECT_LT(deferred * 10, 9 * kReceipts * params.dense_count) << block_count << " blocks";
    }
}

}  // namespace
}  // namespace ox::fountain
