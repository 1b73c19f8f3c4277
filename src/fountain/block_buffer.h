#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace ox::fountain {

/// A number of equal blocks side by side, each aligned for vector loads. The bytes are not
/// initialised. Throws std::bad_alloc.
class BlockBuffer {
  public:
    /// Makes room for `count` blocks of `bytes`; what the buffer held is lost.
    void reset(size_t count, size_t bytes) {
        pitch_ = (bytes + kAlignment - 1) / kAlignment * kAlignment;
        if (count > SIZE_MAX / pitch_) throw std::bad_alloc();
        if (count * pitch_ > capacity_) {
            memory_.reset();
            capacity_ = 0;
            memory_.reset(static_cast<uint8_t*>(
                ::operator new (count* pitch_, std::align_val_t{kAlignment})));
            capacity_ = count * pitch_;
        }
    }

    [[nodiscard]] uint8_t* at(size_t index) noexcept { return memory_.get() + index * pitch_; }
    [[nodiscard]] const uint8_t* at(size_t index) const noexcept {
        return memory_.get() + index * pitch_;
    }
    [[nodiscard]] size_t pitch() const noexcept { return pitch_; }

  private:
    static constexpr size_t kAlignment = 32;

    struct Free {
        void operator()(uint8_t* memory) const noexcept {
            ::operator delete (memory, std::align_val_t{kAlignment});
        }
    };

    std::unique_ptr<uint8_t, Free> memory_;
    size_t capacity_ = 0;
    size_t pitch_ = kAlignment;
};

}  // namespace ox::fountain
