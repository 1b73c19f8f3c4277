#include "input/uinput_device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace ox {
namespace {

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
