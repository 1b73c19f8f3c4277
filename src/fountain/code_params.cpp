#include "fountain/code_params.h"

#include <algorithm>

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

}  // namespace ox::fountain
