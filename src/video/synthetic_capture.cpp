#include "video/synthetic_capture.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/clock.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;
constexpr uint32_t kBars = 8;
constexpr uint32_t kStampBits = 32;
constexpr uint32_t kBoxStepX = 5;  // pixels per frame
constexpr uint32_t kBoxStepY = 3;
constexpr std::array<std::array<uint8_t, 3>, kBars> kBarColours{{{200, 200, 200},
                                                                 {200, 200, 0},
                                                                 {0, 200, 200},
                                                                 {0, 200, 0},
                                                                 {200, 0, 200},
                                                                 {200, 0, 0},
                                                                 {0, 0, 200},
                                                                 {25, 25, 25}}};

std::vector<uint8_t> draw_bars(uint32_t width, uint32_t height) {
    std::vector<uint8_t> picture(size_t{width} * height * kPixelBytes);
    const uint32_t bar_width = std::max(1U, width / kBars);
    uint8_t* out = picture.data();
    for (uint32_t y = 0; y < height; ++y) {
        const uint32_t brightness = 255 - (60 * y) / height;
        for (uint32_t x = 0; x < width; ++x) {
            for (const uint8_t colour : kBarColours[std::min(x / bar_width, kBars - 1)]) {
                *out++ = static_cast<uint8_t>(colour * brightness / 255);
            }
            *out++ = 255;
        }
    }
    return picture;
}

/// Position at `distance` travelled on a way of length `range` that is gone to and fro.
uint32_t bounce(uint64_t distance, uint32_t range) {
    const uint64_t t = distance % (uint64_t{range} * 2);
    return static_cast<uint32_t>(t <= range ? t : 2 * uint64_t{range} - t);
}

/// Fills a rectangle, clipped to the picture, with one grey value. Alpha is 255 everywhere already.
void fill_rect(CapturedFrame& frame, uint32_t left, uint32_t top, uint32_t width, uint32_t height,
               uint8_t grey) {
    const uint32_t right = std::min(left + width, frame.width);
    const uint32_t bottom = std::min(top + height, frame.height);
    if (left >= right) return;
    const std::array<uint8_t, kPixelBytes> pixel{grey, grey, grey, 255};
    for (uint32_t y = top; y < bottom; ++y) {
        uint8_t* out = frame.data.data() + (size_t{y} * frame.width + left) * kPixelBytes;
        for (uint32_t x = left; x < right; ++x, out += kPixelBytes) {
            std::memcpy(out, pixel.data(), kPixelBytes);
        }
    }
}

}  // namespace

bool SyntheticCapture::init() {
    const auto plausible = [](uint32_t side) { return side >= 1 && side <= kMaxSide; };
    if (!plausible(width_) || !plausible(height_)) {
        OX_ERROR("SyntheticCapture: bad size %ux%u", width_, height_);
        return false;
    }
    base_ = draw_bars(width_, height_);
    OX_INFO("SyntheticCapture: %ux%u test pattern", width_, height_);
    return true;
}

int SyntheticCapture::capture_frame(CapturedFrame& frame) {
    if (base_.empty()) return 1;
    frame.lent.reset();
    resize_with_slack(frame.data, base_.size());
    std::ranges::copy(base_, frame.data.begin());
    frame.width = width_;
    frame.height = height_;

    const uint64_t n = frames_++;
    const uint32_t box_width = width_ / kBars;
    const uint32_t box_height = height_ / kBars;
    fill_rect(frame, bounce(kBoxStepX * n, width_ - box_width),
              bounce(kBoxStepY * n, height_ - box_height), box_width, box_height, 255);
    for (uint32_t bit = 0; bit < kStampBits; ++bit) {
        fill_rect(frame, bit * kStampBlock, 0, kStampBlock, kStampBlock,
                  (n >> bit & 1U) != 0 ? 255 : 0);
    }
    frame.timestamp = steady_now_us();
    return 0;
}

void SyntheticCapture::shutdown() {
    base_.clear();
    base_.shrink_to_fit();
}

}  // namespace ox
