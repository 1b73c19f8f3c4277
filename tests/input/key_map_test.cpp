#include "input/key_map.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

namespace ox {
namespace {

// Linux codes are written as numbers here: they are the kernel's ABI and what a device reports.

TEST(KeyMap, ScanCodesGoBeforeVirtualKeys) {
    const std::map<int, int> extended{{28, 96},  {29, 97},  {53, 98},  {55, 99},  {56, 100},
                                      {71, 102}, {72, 103}, {73, 104}, {75, 105}, {77, 106},
                                      {79, 107}, {80, 108}, {81, 109}, {82, 110}, {83, 111},
                                      {91, 125}, {92, 126}, {93, 127}};
    for (int scan = 0; scan < 256; ++scan) {
        const auto entry = extended.find(scan);
        const auto code = static_cast<uint8_t>(scan);
        EXPECT_EQ(linux_key_code(0, code, true), entry == extended.end() ? 0 : entry->second)
            << scan;
        int plain = scan <= 88 ? scan : 0;
        if (scan == 89) plain = 117;
        if (scan >= 100 && scan <= 111) plain = scan + 83;
        EXPECT_EQ(linux_key_code(0, code, false), plain) << scan;
    }
    EXPECT_EQ(linux_key_code(0x1B, 30, true), 1) << "no extended entry: the virtual key decides";
    EXPECT_EQ(linux_key_code(0x41, 16, false), 16);
    EXPECT_EQ(linux_key_code(0x13, 69, false), 119);
    EXPECT_EQ(linux_key_code(0x90, 69, false), 69);
}

TEST(KeyMap, VirtualKeysWithoutAScanCode) {
    const struct {
        uint16_t first;
        std::vector<int> codes;  ///< of consecutive virtual keys
    } runs[] = {
        {0x08, {14, 15}},
        {0x0D, {28}},
        {0x13, {119, 58}},
        {0x1B, {1}},
        {0x20, {57, 104, 109, 107, 102, 105, 103, 106, 108}},
        {0x2C, {99, 110, 111}},
        {0x30, {11, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {0x41, {30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42,
                43, 44, 45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55}},
        {0x5B, {125, 126, 127}},
        {0x60, {82, 79, 80, 81, 75, 76, 77, 71, 72, 73, 55, 78, 0, 74, 83, 98}},
        {0x70, {59, 60, 61, 62, 63, 64, 65, 66, 67, 68, 69, 70}},
        {0x7C, {183, 184, 185, 186, 187, 188, 189, 190, 191, 192, 193, 194}},
        {0x90, {69, 70}},
        {0xA0, {42, 54, 29, 97, 56, 100}},
        {0xBA, {39, 13, 51, 12, 52, 53, 41}},
        {0xDB, {26, 43, 27, 40}},
        {0xE2, {86}},
    };
    std::map<int, int> expected;
    for (const auto& [first, codes] : runs) {
        for (size_t i = 0; i < codes.size(); ++i)
            expected[first + static_cast<int>(i)] = codes[i];
    }
    for (int vk = 0; vk < 0x10000; ++vk)
        ASSERT_EQ(linux_key_code(static_cast<uint16_t>(vk), 0, false), expected[vk]) << vk;
}

}  // namespace
}  // namespace ox
