#pragma once

#include <cstdint>
#include <optional>

#include "launcher/client/video_decoder.h"

namespace ox::launcher {

/// The synthetic picture's number: 32 blocks of 8x8 pixels, top left, least significant bit first,
/// white for 1. Nothing when the plane is too small or a block is neither dark nor bright.
std::optional<uint32_t> read_frame_stamp(const LumaPlane& plane);

/// Checks pictures: stamp and frame number both count them, so their difference is constant.
class StampChecker {
  public:
    struct Report {
        uint64_t read = 0;
        uint64_t unreadable = 0;
        uint32_t first = 0;
        uint32_t last = 0;
        uint64_t out_of_order = 0;  ///< not above the previous stamp
        uint64_t invented = 0;      ///< not the picture of this frame number
    };

    /// One decoded picture, in the order of decoding.
    void add(uint32_t frame_id, std::optional<uint32_t> stamp);
    [[nodiscard]] const Report& report() const { return report_; }

  private:
    Report report_;
    uint32_t offset_ = 0;  ///< stamp - frame number, modulo 2^32
};

}  // namespace ox::launcher
