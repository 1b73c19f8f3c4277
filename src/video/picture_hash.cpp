#include "video/picture_hash.h"

#include <array>
#include <bit>
#include <cstring>

namespace ox {
namespace {

constexpr uint64_t kFactor = 0x9E3779B97F4A7C15;  // odd: no step loses a bit

}  // namespace

uint64_t hash_picture(const uint8_t* rows, size_t stride, size_t row_bytes, uint32_t height) {
    // Lanes of their own keep the multiplier busy.
    std::array<uint64_t, 4> lanes{1, 2, 3, 4};
    constexpr size_t kBlock = sizeof(lanes);
    const auto mix = [](uint64_t lane, uint64_t word) {
        return std::rotl((lane ^ word) * kFactor, 29);
    };
    for (uint32_t y = 0; y < height; ++y) {
        const uint8_t* row = rows + y * stride;
        std::array<uint64_t, 4> words{};
        size_t at = 0;
        for (; at + kBlock <= row_bytes; at += kBlock) {
            std::memcpy(words.data(), row + at, kBlock);
            for (size_t i = 0; i < lanes.size(); ++i)
                lanes[i] = mix(lanes[i], words[i]);
        }
        words = {};
        std::memcpy(words.data(), row + at, row_bytes - at);
        for (size_t i = 0; i < lanes.size() && at < row_bytes; ++i)
            lanes[i] = mix(lanes[i], words[i]);
    }
    uint64_t hash = 0;
    for (const uint64_t lane : lanes)
        hash = mix(hash, lane);
    return hash;
}

}  // namespace ox
