#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>

#include "video/synthetic_capture.h"

namespace ox::test {

/// The next picture of a simulated screen; false when nothing has changed.
using ScreenPictures = std::function<bool(CapturedFrame&)>;

/// The moving test picture.
inline ScreenPictures moving_pictures(uint32_t width, uint32_t height) {
    auto pictures = std::make_shared<SyntheticCapture>(width, height);
    pictures->init();
    return [pictures](CapturedFrame& frame) { return pictures->capture_frame(frame) == 0; };
}

/// Compares pictures byte by byte with the synthetic ones, in order.
class SyntheticReference {
  public:
    SyntheticReference(uint32_t width, uint32_t height) : next_(moving_pictures(width, height)) {
        next_(expected_);
    }

    /// Whether `frame` is the present reference picture or a later one (of the next thousand).
    bool matches(const CapturedFrame& frame) {
        if (frame.width != expected_.width || frame.height != expected_.height) return false;
        for (int step = 0; step < 1000; ++step, next_(expected_)) {
            if (!std::equal(expected_.data.begin(), expected_.data.end(), frame.pixels())) continue;
            pictures_ += step > 0 ? 1 : 0;
            return true;
        }
        return false;
    }
    [[nodiscard]] int pictures() const { return pictures_; }

  private:
    ScreenPictures next_;
    CapturedFrame expected_;
    int pictures_ = 0;
};

}  // namespace ox::test
