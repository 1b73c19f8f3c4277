#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "fountain/gf256.h"

namespace ox::fountain {

/// Blocks of equal size side by side, uninitialised. Throws std::bad_alloc.
class BlockBuffer {
  public:
    /// Makes room for `count` blocks of `bytes` and loses the content.
    void reset(size_t count, size_t bytes) {
        if (count > SIZE_MAX / bytes) throw std::bad_alloc();
        if (count * bytes > capacity_) {
            capacity_ = 0;
            memory_.reset();
            memory_ = std::make_unique_for_overwrite<uint8_t[]>(count * bytes);
            capacity_ = count * bytes;
        }
        pitch_ = bytes;
    }

    [[nodiscard]] uint8_t* at(size_t index) noexcept { return memory_.get() + index * pitch_; }
    [[nodiscard]] const uint8_t* at(size_t index) const noexcept {
        return memory_.get() + index * pitch_;
    }
    [[nodiscard]] size_t pitch() const noexcept { return pitch_; }

  private:
    std::unique_ptr<uint8_t[]> memory_;
    size_t capacity_ = 0;
    size_t pitch_ = 0;
};

/// Where a row table's blocks are: `contiguous` ones at a fixed distance, the rest by `others`.
struct BlockSource {
    const uint8_t* base = nullptr;
    size_t pitch = 0;
    uint32_t contiguous = 0;
    const uint8_t* const* others = nullptr;

    [[nodiscard]] const uint8_t* at(uint32_t row) const noexcept {
        return row < contiguous ? base + row * pitch : others[row - contiguous];
    }
};

/// Writes a sum of blocks to `dest`, at least one of them.
class BlockSum {
  public:
    BlockSum(uint8_t* dest, size_t bytes) noexcept : dest_(dest), bytes_(bytes) {}

    void add(const uint8_t* block) noexcept {
        if (empty_) {
            std::memcpy(dest_, block, bytes_);
        } else {
            gf256_add_mem(dest_, block, bytes_);
        }
        empty_ = false;
    }

  private:
    uint8_t* dest_;
    size_t bytes_;
    bool empty_ = true;
};

}  // namespace ox::fountain
