#pragma once

#include <cstdint>
#include <vector>

#include "video/capture.h"

namespace ox {

/// A moving test picture for machines without a desktop: colour bars, a bouncing white box, and the
/// frame's number as a row of 32 black or white blocks at the top (bit 0 leftmost), from which a
/// receiver can tell which picture it has.
class SyntheticCapture final : public ICapture {
  public:
    static constexpr uint32_t kMaxSide = 8192;
    static constexpr uint32_t kStampBlock = 8;  ///< width and height of one bit of the stamp

    SyntheticCapture(uint32_t width, uint32_t height) : width_(width), height_(height) {}

    bool init() override;
    int capture_frame(CapturedFrame& frame) override;
    [[nodiscard]] uint32_t width() const override { return width_; }
    [[nodiscard]] uint32_t height() const override { return height_; }
    void shutdown() override;

  private:
    uint32_t width_;
    uint32_t height_;
    uint64_t frames_ = 0;
    std::vector<uint8_t> base_;  ///< the bars; empty until init
};

}  // namespace ox
