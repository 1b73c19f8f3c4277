#include "fountain/code_choice.h"

#include <array>
#include <atomic>

#include "fountain/matrix_solver.h"

namespace ox::fountain {
namespace {

constexpr uint32_t kSeedLimit = 256;

bool encoder_can_be_solved(const CodeParams& params) {
    MatrixSolver matrix;
    matrix.reset(params);
    for (uint32_t id = 0; id < params.block_count; ++id)
        matrix.add_row(id);
    return matrix.solve();
}

// The rule by which the table was made, so that a longer table changes nothing.
uint32_t find_peel_seed(CodeParams params) {
    params.peel_seed = 0;
    while (params.peel_seed < kSeedLimit && !encoder_can_be_solved(params))
        ++params.peel_seed;
    return params.peel_seed;
}

}  // namespace

CodeParams choose_code(uint32_t block_count) {
    static std::array<std::atomic<uint16_t>, kMaxBlocks - kTabledBlocks + 1> found{};  // seed + 1
    CodeParams params = code_params(block_count);
    if (block_count <= kTabledBlocks) return params;
    std::atomic<uint16_t>& entry = found[block_count - kTabledBlocks];
    uint32_t known = entry.load(std::memory_order_relaxed);
    if (known == 0) {
        known = find_peel_seed(params) + 1;
        entry.store(static_cast<uint16_t>(known), std::memory_order_relaxed);
    }
    params.peel_seed = known - 1;
    return params;
}

}  // namespace ox::fountain
