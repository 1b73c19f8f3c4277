#include "fountain/code_params.h"

#include <algorithm>
#include <array>
#include <atomic>

#include "fountain/matrix_solver.h"

namespace ox::fountain {
namespace {

bool is_prime(uint32_t value) noexcept {
    for (uint32_t divisor = 2; divisor * divisor <= value; ++divisor) {
        if (value % divisor == 0) return false;
    }
    return value >= 2;
}

uint16_t next_prime(uint32_t value) noexcept {
    while (!is_prime(value))
        ++value;
    return static_cast<uint16_t>(value);
}

// Linear between the table's points, then up to the next number that is 2 modulo 4: only such sizes
// let the dense rows' pattern have full rank.
uint16_t dense_count_for(uint32_t block_count) noexcept {
    size_t i = 1;
    while (block_count > kDensePoints[i].block_count)
        ++i;
    const DensePoint& low = kDensePoints[i - 1];
    const DensePoint& high = kDensePoints[i];
    const uint32_t rise = high.dense_count - low.dense_count;
    const uint32_t run = high.block_count - low.block_count;
    const uint32_t dense_count = low.dense_count + (block_count - low.block_count) * rise / run;
    return static_cast<uint16_t>((dense_count + 1) / 4 * 4 + 2);
}

uint32_t peel_seed_for(uint32_t block_count) noexcept {
    if (block_count < kSmallPeelSeeds.size()) return kSmallPeelSeeds[block_count];
    const auto* const found = std::lower_bound(
        kPeelSeedExceptions.begin(), kPeelSeedExceptions.end(), block_count,
        [](const PeelSeed& entry, uint32_t count) { return entry.block_count < count; });
    const bool listed = found != kPeelSeedExceptions.end() && found->block_count == block_count;
    return listed ? found->seed : 0;
}

constexpr uint32_t kSeedLimit = 256;

bool encoder_can_be_solved(const CodeParams& params) {
    MatrixSolver matrix;
    matrix.reset(params);
    for (uint32_t id = 0; id < params.block_count; ++id)
        matrix.add_row(id);
    return matrix.solve();
}

// The rule that made the table, so that a longer table changes nothing.
uint32_t find_peel_seed(CodeParams params) {
    params.peel_seed = 0;
    while (params.peel_seed < kSeedLimit && !encoder_can_be_solved(params))
        ++params.peel_seed;
    return params.peel_seed;
}

}  // namespace

CodeParams code_params_with(uint32_t block_count, uint16_t dense_count, uint32_t peel_seed,
                            uint32_t dense_seed) noexcept {
    CodeParams params;
    params.block_count = static_cast<uint16_t>(block_count);
    params.dense_count = dense_count;
    params.mix_count = static_cast<uint16_t>(dense_count + kHeavyRows);
    params.block_prime = next_prime(block_count);
    params.mix_prime = next_prime(params.mix_count);
    params.peel_seed = peel_seed;
    params.dense_seed = dense_seed;
    return params;
}

CodeParams code_params(uint32_t block_count) noexcept {
    const uint16_t dense_count = dense_count_for(block_count);
    return code_params_with(block_count, dense_count, peel_seed_for(block_count),
                            kDenseSeeds[dense_count / 4U]);
}

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
