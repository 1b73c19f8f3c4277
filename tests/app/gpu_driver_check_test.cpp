#include "app/gpu_driver_check.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir.h"

namespace ox {
namespace {

TEST(NvidiaDriverCheck, MissingOnlyWithAnAdapterAndWithoutTheDriver) {
    const test::TempDir folder;
    const std::filesystem::path root = folder.path();
    const auto write = [&](const std::string& path, const char* text) {
        std::filesystem::create_directories((root / path).parent_path());
        std::ofstream(root / path) << text;
    };
    const std::string gpu = "sys/bus/pci/devices/0000:01:00.0/";
    write(gpu + "vendor", "0x10de\n");
    write(gpu + "class", "0x040300\n");
    EXPECT_FALSE(nvidia_driver_missing(root)) << "its audio function is no display";
    for (const char* display : {"0x030000\n", "0x030200\n"}) {
        write(gpu + "class", display);
        EXPECT_TRUE(nvidia_driver_missing(root)) << display;
    }
    std::filesystem::remove_all(root / "sys");
    EXPECT_FALSE(nvidia_driver_missing(root));
    write("sys/class/drm/card0/device/vendor", "0x10de\n");
    EXPECT_TRUE(nvidia_driver_missing(root)) << "seen as a DRM card only";
    write("proc/driver/nvidia/version", "NVRM\n");
    EXPECT_FALSE(nvidia_driver_missing(root));
}

}  // namespace
}  // namespace ox
