#pragma once

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

}  // namespace ox::test
