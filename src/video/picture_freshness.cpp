#include "video/picture_freshness.h"

#include <array>
#include <bit>
#include <cstring>

namespace ox {
namespace {

constexpr uint64_t kFactor = 0x9E3779B97F4A7C15;  // odd: no step loses a bit

}  // namespace

PictureFreshness::Need PictureFreshness::next(uint64_t announced, SteadyClock::time_point now) {
    if (suspected_at_) {
        const bool explained = announced > suspected_count_;
        if (!explained && now - *suspected_at_ >= kCheckPeriod) trusted_ = false;
        if (explained || !trusted_) suspected_at_.reset();
    }
    if (!trusted_ || suspected_at_ || seen_ != announced) return Need::Fetch;
    return now - fetched_at_ >= kCheckPeriod ? Need::Check : Need::Nothing;
}

void PictureFreshness::fetched(uint64_t announced, SteadyClock::time_point now) {
    seen_ = announced;
    fetched_at_ = now;
}

void PictureFreshness::found_change(SteadyClock::time_point now) {
    if (suspected_at_) return;
    suspected_at_ = now;
    suspected_count_ = seen_.value_or(0);
}

uint64_t hash_picture(const uint8_t* rows, size_t stride, size_t row_bytes, uint32_t height) {
    // Independent lanes keep the multiplier busy.
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
