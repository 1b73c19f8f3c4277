#include "launcher/frame_stamp.h"

namespace ox::launcher {

namespace {

constexpr uint32_t kBits = 32;
constexpr uint32_t kBlock = 8;
// Of video levels from 16 to 235; a level in between is neither black nor white.
constexpr unsigned kDarkBelow = 80;
constexpr unsigned kBrightAbove = 170;

// Mean of the inner 4x4 pixels, which neighbouring blocks do not bleed into.
unsigned block_level(const LumaPlane& plane, uint32_t bit) {
    unsigned sum = 0;
    for (size_t y = 2; y < 6; ++y)
        for (size_t x = 2; x < 6; ++x)
            sum += plane.bytes[y * plane.stride + size_t{bit} * kBlock + x];
    return sum / 16;
}

}  // namespace

std::optional<uint32_t> read_frame_stamp(const LumaPlane& plane) {
    if (plane.width < kBits * kBlock || plane.height < kBlock || plane.stride < plane.width ||
        plane.bytes.size() < (kBlock - 1) * plane.stride + plane.width)
        return std::nullopt;
    uint32_t stamp = 0;
    for (uint32_t bit = 0; bit < kBits; ++bit) {
        const unsigned level = block_level(plane, bit);
        if (level > kBrightAbove) {
            stamp |= uint32_t{1} << bit;
        } else if (level >= kDarkBelow) {
            return std::nullopt;
        }
    }
    return stamp;
}

void StampChecker::add(uint32_t frame_id, std::optional<uint32_t> stamp) {
    if (!stamp) {
        ++report_.unreadable;
        return;
    }
    const uint32_t offset = *stamp - frame_id;
    if (report_.read == 0) {
        report_.first = *stamp;
        offset_ = offset;
    } else if (static_cast<int32_t>(*stamp - report_.last) <= 0) {
        ++report_.out_of_order;
    }
    if (offset != offset_) ++report_.invented;
    report_.last = *stamp;
    ++report_.read;
}

}  // namespace ox::launcher
