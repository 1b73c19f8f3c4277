#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>

#include "e2e/player.h"
#include "support/x_painter.h"

namespace ox::test {

/// Watches pictures that carry a growing number (`launcher::read_frame_stamp`): each must have one,
/// and none may be lower than the one before.
class Watcher {
  public:
    explicit Watcher(
        Player& player, uint32_t (*decode)(uint32_t) = [](uint32_t n) { return n; }) {
        player.on_picture = [this, decode](const launcher::DecodedPicture& picture) {
            const auto stamp = launcher::read_frame_stamp(picture.luma);
            const uint32_t number = stamp ? decode(*stamp) : last_;
            wrong_ += !stamp || number < last_ ? 1 : 0;
            different_ += number > last_ ? 1 : 0;
            last_ = number;
        };
    }
    ~Watcher() { EXPECT_EQ(wrong_, 0); }
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    [[nodiscard]] int different() const { return different_; }
    [[nodiscard]] uint32_t last() const { return last_; }

  private:
    uint32_t last_ = 0;
    int different_ = 0;
    int wrong_ = 0;
};

/// Such a number on an X server's screen, in Gray code: each change is one request, so that what a
/// capture sees is exactly the screen after some number of changes.
class DrawnNumber {
  public:
    explicit DrawnNumber(const std::string& display) : painter_(display) {
        painter_.fill(0, 0, 256, 8, 0);
    }
    void change() {
        const int bit = std::countr_zero(++number_);
        const bool on = ((number_ ^ number_ >> 1U) >> bit & 1U) != 0;
        painter_.fill(bit * 8, 0, 8, 8, on ? 0xFFFFFF : 0);
    }
    [[nodiscard]] uint32_t number() const { return number_; }
    static uint32_t decode(uint32_t stamp) {
        for (const uint32_t shift : {16U, 8U, 4U, 2U, 1U})
            stamp ^= stamp >> shift;
        return stamp;
    }
    [[nodiscard]] XPainter& painter() { return painter_; }

  private:
    XPainter painter_;
    uint32_t number_ = 0;
};

}  // namespace ox::test
