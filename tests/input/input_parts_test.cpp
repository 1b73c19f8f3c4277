// Key mapping, replay protection and the virtual device.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "input/key_map.h"
#include "input/replay_window.h"
#include "input/uinput_device.h"

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
    // Virtual keys without a scan code.
    const std::pair<uint16_t, int> samples[] = {
        {0x08, 14}, {0x0D, 28}, {0x13, 119}, {0x1B, 1},   {0x20, 57}, {0x25, 105}, {0x28, 108},
        {0x30, 11}, {0x31, 2},  {0x41, 30},  {0x5A, 55},  {0x60, 82}, {0x6C, 0},   {0x6F, 98},
        {0x70, 59}, {0x7B, 70}, {0x7C, 183}, {0x87, 194}, {0x90, 69}, {0xA0, 42},  {0xA5, 100},
        {0xBA, 39}, {0xDE, 40}, {0xE2, 86},  {0xE3, 0},   {0x141, 0},
    };
    for (const auto& [vk, code] : samples)
        EXPECT_EQ(linux_key_code(vk, 0, false), code) << vk;
}

TEST(ReplayWindow, AcceptsEachSequenceOnceWithin64OfTheNewest) {
    using Run = std::vector<std::pair<uint16_t, bool>>;  // sequences, and whether each is accepted
    const Run runs[] = {
        // Wrap, and second copies of either side of it.
        {{65535, true}, {0, true}, {65535, false}, {0, false}, {65534, true}},
        // The far end of the window: 63 behind is in, 64 behind is out.
        {{1000, true}, {937, true}, {936, false}, {937, false}, {1000, false}},
        // A step of 63 keeps the old newest, one of 64 forgets it.
        {{10, true}, {73, true}, {10, false}, {11, true}},
        {{10, true}, {74, true}, {10, false}, {11, true}},
        // Out of order, each once.
        {{5, true}, {9, true}, {7, true}, {6, true}, {7, false}, {8, true}, {5, false}},
        // Half the number space ahead counts as behind.
        {{0, true}, {32767, true}, {65535, false}, {0, false}},
    };
    ReplayWindow window;
    for (const Run& run : runs) {
        window.reset();
        for (const auto& [sequence, accepted] : run)
            EXPECT_EQ(window.accept_sequence(sequence), accepted) << &run - runs << " " << sequence;
    }
}

/// The event node of the virtual device, or an empty path.
std::string find_event_node() {
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/input")) {
        std::string name;
        std::getline(std::ifstream(entry.path() / "device/name"), name);
        const std::string node = entry.path().filename();
        if (name == "Orvex Agent" && node.starts_with("event")) return "/dev/input/" + node;
    }
    return {};
}

TEST(UinputDevice, TheKernelMakesAKeyboardAndPointerOfIt) {
    if (::access("/dev/uinput", W_OK) != 0) GTEST_SKIP() << "no writable /dev/uinput here";
    UinputDevice device;
    ASSERT_TRUE(device.uinput_init());
    const std::string node = find_event_node();
    if (node.empty()) GTEST_SKIP() << "the event node of the device cannot be read here";
    const UniqueFd fd(::open(node.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    device.uinput_key(KEY_A, true);
    device.uinput_sync();
    input_event event{};
    ASSERT_EQ(::read(fd.get(), &event, sizeof event), static_cast<ssize_t>(sizeof event));
    EXPECT_EQ(std::pair(event.code, event.value), std::pair(uint16_t{KEY_A}, 1));
    device.destroy();
    EXPECT_EQ(find_event_node(), "");
}

}  // namespace
}  // namespace ox
