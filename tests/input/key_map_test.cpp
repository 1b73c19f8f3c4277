#include "input/key_map.h"

#include <gtest/gtest.h>

#include <map>

namespace ox {
namespace {

// Linux codes are written as numbers here: they are the kernel's ABI and what a device reports.

TEST(KeyMap, ExtendedScanCodes) {
    const std::map<int, int> expected{{28, 96},  {29, 97},  {53, 98},  {55, 99},  {56, 100},
                                      {71, 102}, {72, 103}, {73, 104}, {75, 105}, {77, 106},
                                      {79, 107}, {80, 108}, {81, 109}, {82, 110}, {83, 111},
                                      {91, 125}, {92, 126}, {93, 127}};
    for (int scan = 0; scan < 256; ++scan) {
        const auto entry = expected.find(scan);
        EXPECT_EQ(linux_key_code(0, static_cast<uint8_t>(scan), true),
                  entry == expected.end() ? 0 : entry->second)
            << scan;
    }
    // Without an entry the virtual key decides, and the plain scan rules do not apply.
    EXPECT_EQ(linux_key_code(0x1B, 30, true), 1);
}

TEST(KeyMap, PlainScanCodes) {
    for (int scan = 0; scan < 256; ++scan) {
        int expected = scan <= 88 ? scan : 0;
        if (scan == 89) expected = 117;
        if (scan >= 100 && scan <= 111) expected = scan + 83;
        EXPECT_EQ(linux_key_code(0, static_cast<uint8_t>(scan), false), expected) << scan;
    }
    EXPECT_EQ(linux_key_code(0x13, 69, false), 119);
    EXPECT_EQ(linux_key_code(0x90, 69, false), 69);
    // The scan code goes before the virtual key.
    EXPECT_EQ(linux_key_code(0x41, 16, false), 16);
}

TEST(KeyMap, VirtualKeysWithoutAScanCode) {
    std::map<int, int> expected{{0x08, 14},
                                {0x09, 15},
                                {0x0D, 28},
                                {0x13, 119},
                                {0x14, 58},
                                {0x1B, 1},
                                {0x20, 57},
                                {0x21, 104},
                                {0x22, 109},
                                {0x23, 107},
                                {0x24, 102},
                                {0x25, 105},
                                {0x26, 103},
                                {0x27, 106},
                                {0x28, 108},
                                {0x2C, 99},
                                {0x2D, 110},
                                {0x2E, 111},
                                {0x5B, 125},
                                {0x5C, 126},
                                {0x5D, 127},
                                {0x60, 82},
                                {0x61, 79},
                                {0x62, 80},
                                {0x63, 81},
                                {0x64, 75},
                                {0x65, 76},
                                {0x66, 77},
                                {0x67, 71},
                                {0x68, 72},
                                {0x69, 73},
                                {0x6A, 55},
                                {0x6B, 78},
                                {0x6D, 74},
                                {0x6E, 83},
                                {0x6F, 98},
                                {0x90, 69},
                                {0x91, 70},
                                {0xA0, 42},
                                {0xA1, 54},
                                {0xA2, 29},
                                {0xA3, 97},
                                {0xA4, 56},
                                {0xA5, 100},
                                {0xBA, 39},
                                {0xBB, 13},
                                {0xBC, 51},
                                {0xBD, 12},
                                {0xBE, 52},
                                {0xBF, 53},
                                {0xC0, 41},
                                {0xDB, 26},
                                {0xDC, 43},
                                {0xDD, 27},
                                {0xDE, 40},
                                {0xE2, 86},
                                // Ends of the runs.
                                {0x41, 30},
                                {0x5A, 55},
                                {0x30, 11},
                                {0x31, 2},
                                {0x39, 10},
                                {0x70, 59},
                                {0x7A, 69},
                                {0x7B, 70},
                                {0x7C, 183},
                                {0x87, 194}};
    for (int vk = 0x42; vk < 0x5A; ++vk)
        expected[vk] = expected[0x41] + vk - 0x41;
    for (int vk = 0x32; vk < 0x39; ++vk)
        expected[vk] = vk - 0x2F;
    for (int vk = 0x71; vk < 0x7A; ++vk)
        expected[vk] = vk - 0x70 + 59;
    for (int vk = 0x7D; vk < 0x87; ++vk)
        expected[vk] = vk - 0x7C + 183;
    for (int vk = 0; vk < 0x10000; ++vk) {
        const auto entry = expected.find(vk);
        ASSERT_EQ(linux_key_code(static_cast<uint16_t>(vk), 0, false),
                  entry == expected.end() ? 0 : entry->second)
            << vk;
    }
}

}  // namespace
}  // namespace ox
