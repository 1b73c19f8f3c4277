#include "fountain/code_rows.h"

#include <algorithm>

namespace ox::fountain {
namespace {

uint16_t draw_weight(uint32_t draw) noexcept {
    for (uint16_t weight = 1; weight < kMaxRowWeight; ++weight) {
        if (draw < kWeightLimits[weight]) return weight;
    }
    return kMaxRowWeight;
}

ColumnWalk draw_walk(uint32_t draw, uint16_t count, uint16_t prime) noexcept {
    const uint32_t step = (draw & 0xffffU) % (count - 1U) + 1U;
    const uint32_t first = (draw >> 16U) % count;
    return {static_cast<uint16_t>(first), static_cast<uint16_t>(step), count, prime};
}

}  // namespace

CodeRow::CodeRow(const CodeParams& params, uint32_t id) noexcept {
    PcgRandom random(id, params.peel_seed);
    // A row never covers more than half of the columns.
    weight_ = std::min<uint16_t>(draw_weight(random.next()), params.block_count / 2);
    peel_ = draw_walk(random.next(), params.block_count, params.block_prime);
    mix_ = draw_walk(random.next(), params.mix_count, params.mix_prime);
}

}  // namespace ox::fountain
