#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace ox::launcher {

/// A brightness plane, one byte per pixel; row y begins at y * stride.
struct LumaPlane {
    std::span<const uint8_t> bytes;
    size_t stride = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

/// The number that the synthetic picture carries in its top-left corner: 32 blocks of 8x8 pixels
/// side by side, least significant bit first, white for 1 and black for 0. Nothing when the plane
/// is too small or a block is neither dark nor bright.
std::optional<uint32_t> read_frame_stamp(const LumaPlane& plane);

/// Follows the stamps of decoded pictures and proves that the right ones came: the stamp and the
/// agent's frame number both count pictures, so their difference never changes within a session.
class StampChecker {
  public:
    struct Report {
        uint64_t read = 0;
        uint64_t unreadable = 0;
        uint32_t first = 0;
        uint32_t last = 0;
        uint64_t out_of_order = 0;  ///< not above the stamp before
        uint64_t invented = 0;      ///< not the picture that the frame number says
    };

    /// One decoded picture, in the order of decoding.
    void add(uint32_t frame_id, std::optional<uint32_t> stamp);
    [[nodiscard]] const Report& report() const { return report_; }

  private:
    Report report_;
    uint32_t offset_ = 0;  ///< stamp - frame number, modulo 2^32
};

}  // namespace ox::launcher
