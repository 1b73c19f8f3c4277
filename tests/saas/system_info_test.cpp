#include "saas/system_info.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace ox {
namespace {

TEST(SystemInfo, ReadsEverySourceAndPrefersTheNvidiaName) {
    const test::TempDir root;
    EXPECT_EQ(detect_system_info(root.path().string()).ram_mb, 0U);  // nothing can be read
    root.write("proc/cpuinfo",
               "processor\t: 0\nmodel name\t: Example CPU: 8 cores \nmodel name\t: other\n");
    root.write("proc/meminfo", "MemTotal:       16384000 kB\nMemAvailable:    1536 kB\n");
    root.write("etc/os-release", "NAME=x\nPRETTY_NAME=\"Example Linux 12\"\nPRETTY_NAME=later\n");
    // The first card with a driver counts, not an output of a card.
    root.write("proc/driver/nvidia/gpus/0/information", "IRQ: 7\n");  // names no model
    root.write("sys/class/drm/card0-HDMI-A-1/device/uevent", "DRIVER=wrong\n");
    root.write("sys/class/drm/card0/device/uevent", "PCI_ID=1\n");
    root.write("sys/class/drm/card1/device/uevent", "PCI_ID=1\nDRIVER=amdgpu\n");
    root.write("sys/class/drm/card2/device/uevent", "DRIVER=i915\n");
    const SystemInfo info = detect_system_info(root.path().string());
    EXPECT_EQ(info.cpu_model + ", " + info.os_version + ", " + info.gpu_model,
              "Example CPU: 8 cores, Example Linux 12, amdgpu GPU");
    EXPECT_EQ(info.ram_mb, 16'000U);
    EXPECT_DOUBLE_EQ(LoadProbe(root.path().string()).ram_free_mb(), 1.5);
    root.write("proc/driver/nvidia/gpus/1/information", "IRQ: 1\nModel: \t NV 9\n");
    EXPECT_EQ(detect_system_info(root.path().string()).gpu_model, "NV 9");
}

TEST(LoadProbe, ComparesWithThePreviousCall) {
    const test::TempDir root;
    LoadProbe load(root.path().string());
    for (const auto& [stat, percent] : {
             std::pair{"", 0.0F},
             {"cpu  10 10 10 50 10 4 3 3 1000 1000\ncpu0 1\n", 40.0F},  // no guest columns
             {"cpu  40 10 10 100 30 4 3 3\n", 30.0F},
             {"cpu  40 10 10 100 30 4 3 3\n", 0.0F},
             {"cpu  60 10 10 100 20 4 3 3\n", 0.0F},  // iowait ran backwards
             {"intr 5\n", 0.0F},
         }) {
        root.write("proc/stat", stat);
        EXPECT_FLOAT_EQ(load.cpu_usage_pct(), percent) << stat;
    }
}

}  // namespace
}  // namespace ox
