#pragma once

#include <cstdint>
#include <vector>

#include "video/capture.h"

namespace ox {

/// A moving test picture: colour bars, a bouncing white box, and at the top the frame's number as
/// 32 black or white blocks (bit 0 leftmost).
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
