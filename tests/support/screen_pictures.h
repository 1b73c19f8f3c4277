#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include "video/capture.h"
#include "video/synthetic_capture.h"

namespace ox::test {

/// What a screen of the test's own shows: the moving test picture.
inline std::unique_ptr<ICapture> moving_pictures(uint32_t width, uint32_t height) {
    auto pictures = std::make_unique<SyntheticCapture>(width, height);
    pictures->init();
    return pictures;
}

/// Shows what another backend does until `frozen`, and nothing new from then on.
class FrozenPictures final : public ICapture {
  public:
    FrozenPictures(std::unique_ptr<ICapture> pictures, const std::atomic<bool>& frozen)
        : pictures_(std::move(pictures)), frozen_(frozen) {}
    bool init() override { return true; }
    int capture_frame(CapturedFrame& frame) override {
        return std::exchange(shown_, true) && frozen_ ? 1 : pictures_->capture_frame(frame);
    }
    [[nodiscard]] uint32_t width() const override { return pictures_->width(); }
    [[nodiscard]] uint32_t height() const override { return pictures_->height(); }

  private:
    std::unique_ptr<ICapture> pictures_;
    const std::atomic<bool>& frozen_;
    bool shown_ = false;
};

/// Shows what one backend does and, once `resized`, what another does.
class ResizedPictures final : public ICapture {
  public:
    ResizedPictures(std::unique_ptr<ICapture> first, std::unique_ptr<ICapture> second,
                    const std::atomic<bool>& resized)
        : first_(std::move(first)), second_(std::move(second)), resized_(resized) {}
    bool init() override { return true; }
    int capture_frame(CapturedFrame& frame) override { return now().capture_frame(frame); }
    [[nodiscard]] uint32_t width() const override { return now().width(); }
    [[nodiscard]] uint32_t height() const override { return now().height(); }

  private:
    [[nodiscard]] ICapture& now() const { return resized_ ? *second_ : *first_; }
    std::unique_ptr<ICapture> first_;
    std::unique_ptr<ICapture> second_;
    const std::atomic<bool>& resized_;
};

}  // namespace ox::test
