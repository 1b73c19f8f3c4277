#include "video/portal/latest_picture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace ox::test {
namespace {

using namespace std::chrono_literals;

TEST(LatestPicture, TakesRowsWithoutWhatLiesBetweenThem) {
    LatestPicture pictures;
    CapturedFrame frame;
    const std::vector<uint8_t> memory = [] {
        std::vector<uint8_t> bytes(256);
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(i);
        return bytes;
    }();
    pictures.put(memory.data(), 8);  // before a size is known
    EXPECT_FALSE(pictures.get(frame));
    EXPECT_TRUE(frame.empty());
    EXPECT_EQ(pictures.width(), 0U);
    for (const size_t stride : {8U, 9U, 20U}) {
        pictures.set_size(2, 3);
        pictures.put(memory.data(), stride);
        frame.timestamp = 1;
        ASSERT_TRUE(pictures.get(frame));
        EXPECT_EQ(frame.timestamp, 0U);
        for (size_t i = 0; i < 24; ++i)
            EXPECT_EQ(frame.pixels()[i], memory[i / 8 * stride + i % 8]) << stride << " " << i;
    }
    // Between the agreement and the first picture of the new size the old one is whole.
    pictures.set_size(5, 1);
    ASSERT_TRUE(pictures.get(frame));
    EXPECT_EQ(frame.width, 2U);
    EXPECT_EQ(frame.height, 3U);
    pictures.put(memory.data(), 20);
    ASSERT_TRUE(pictures.get(frame));
    EXPECT_EQ(frame.width, 5U);
    EXPECT_TRUE(std::equal(memory.begin(), memory.begin() + 20, frame.pixels()));
}

TEST(LatestPicture, WhatIsLentNeverChangesAndPicturesNeverMix) {
    constexpr uint32_t kWidth = 64;
    constexpr uint32_t kHeight = 32;
    constexpr size_t kBytes = kWidth * kHeight * 4;
    CapturedFrame last;
    {
        LatestPicture pictures;
        pictures.set_size(kWidth, kHeight);
        std::atomic<bool> done{false};
        std::jthread writer([&] {
            std::vector<uint8_t> memory(kBytes);
            for (uint8_t value = 1; !done; value = static_cast<uint8_t>(value % 255 + 1)) {
                std::ranges::fill(memory, value);
                pictures.put(memory.data(), kWidth * 4);
            }
        });
        ASSERT_TRUE(pictures.wait_for_first(SteadyClock::now() + 30s, [] { return false; }));
        CapturedFrame held;
        ASSERT_TRUE(pictures.get(held));
        const uint8_t first = held.pixels()[0];
        const auto uniform = [](const CapturedFrame& frame) {
            return std::all_of(frame.pixels(), frame.pixels() + kBytes,
                               [&](uint8_t byte) { return byte == frame.pixels()[0]; });
        };
        for (int i = 0; i < 2000; ++i) {
            ASSERT_TRUE(pictures.get(last));
            ASSERT_TRUE(uniform(last));
        }
        EXPECT_EQ(held.pixels()[0], first);
        EXPECT_TRUE(uniform(held));
        done = true;
    }
    // Readable after its origin has gone.
    EXPECT_EQ(last.pixels()[0], last.pixels()[kBytes - 1]);
}

TEST(LatestPicture, BuffersAreUsedAgain) {
    LatestPicture pictures;
    pictures.set_size(300, 300);
    const std::vector<uint8_t> memory(300 * 300 * 4);
    std::vector<const uint8_t*> seen;
    CapturedFrame frame;
    for (int i = 0; i < 100; ++i) {
        pictures.put(memory.data(), 1200);
        ASSERT_TRUE(pictures.get(frame));
        if (std::ranges::find(seen, frame.pixels()) == seen.end()) seen.push_back(frame.pixels());
    }
    EXPECT_LE(seen.size(), 3U);
}

}  // namespace
}  // namespace ox::test
