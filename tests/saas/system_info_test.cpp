#include "saas/system_info.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <filesystem>
#include <fstream>

#include "saas/load_probe.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

/// A folder that stands for the root of a PC.
class FakeRoot {
  public:
    void write(const std::string& path, const std::string& text) const {
        const std::filesystem::path file = dir_.file(path);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::trunc) << text;
    }
    [[nodiscard]] std::string path() const { return dir_.path().string(); }

  private:
    test::TempDir dir_;
};

TEST(SystemInfo, ReadsAWholePcAndPrefersTheNvidiaDriversName) {
    const FakeRoot root;
    root.write("proc/cpuinfo",
               "processor\t: 0\nmodel name\t: Example CPU: 8 cores \nmodel name\t: other\n");
    root.write("proc/meminfo", "MemTotal:       16384000 kB\nMemAvailable:    1536 kB\n");
    root.write("etc/os-release", "NAME=x\nPRETTY_NAME=\"Example Linux 12\"\nPRETTY_NAME=later\n");
    root.write("proc/driver/nvidia/gpus/0000:01:00.0/information", "IRQ: 1\nModel: \t NV 9\n");
    root.write("sys/class/drm/card0/device/uevent", "DRIVER=amdgpu\n");

    const test::LogCapture log;
    const SystemInfo info = detect_system_info(root.path());
    EXPECT_EQ(info.cpu_model, "Example CPU: 8 cores");
    EXPECT_EQ(info.ram_mb, 16'000U);
    EXPECT_EQ(info.os_version, "Example Linux 12");
    EXPECT_EQ(info.gpu_model, "NV 9");
    EXPECT_EQ(info.gpu_vram_mb, 0U);
    EXPECT_EQ(log.count("INFO",
                        "sysinfo: cpu='Example CPU: 8 cores' ram=16000MB "
                        "os='Example Linux 12' gpu='NV 9'"),
              1);
    EXPECT_DOUBLE_EQ(LoadProbe(root.path()).ram_free_mb(), 1.5);
}

TEST(SystemInfo, TakesTheFirstCardWithADriverAndNoOutputs) {
    const FakeRoot root;
    root.write("proc/driver/nvidia/gpus/0/information", "IRQ: 7\n");  // names no model
    root.write("sys/class/drm/card0-HDMI-A-1/device/uevent", "DRIVER=wrong\n");
    root.write("sys/class/drm/card0/device/uevent", "PCI_ID=1\n");
    root.write("sys/class/drm/card1/device/uevent", "PCI_ID=1\nDRIVER=amdgpu\n");
    root.write("sys/class/drm/card2/device/uevent", "DRIVER=i915\n");
    root.write("sys/class/drm/renderD128/device/uevent", "DRIVER=wrong\n");
    EXPECT_EQ(detect_system_info(root.path()).gpu_model, "amdgpu GPU");
}

TEST(SystemInfo, FallsBackWhereNothingCanBeRead) {
    const FakeRoot root;
    utsname kernel{};
    ASSERT_EQ(::uname(&kernel), 0);
    const SystemInfo info = detect_system_info(root.path());
    EXPECT_EQ(info.os_version, std::string(kernel.sysname) + " " + kernel.release);
    EXPECT_EQ(info.cpu_model + info.gpu_model, "");
    EXPECT_EQ(info.ram_mb, 0U);
    LoadProbe load(root.path());
    EXPECT_EQ(load.ram_free_mb(), 0.0);
    EXPECT_EQ(load.cpu_usage_pct(), 0.0F);
}

TEST(SystemInfo, StripsOnlyAPairOfQuotes) {
    const FakeRoot root;
    for (const auto& [value, expected] : {std::pair{"\"a b\"", "a b"},
                                          {"plain", "plain"},
                                          {"\"", "\""},
                                          {"\"\"", ""},
                                          {"\"x", "\"x"}}) {
        root.write("etc/os-release", std::string("PRETTY_NAME=") + value + "\n");
        EXPECT_EQ(detect_system_info(root.path()).os_version, expected) << value;
    }
    root.write("etc/os-release", "NAME=nothing\n");
    EXPECT_EQ(detect_system_info(root.path()).os_version, "");
}

TEST(LoadProbe, ComparesWithThePreviousCall) {
    const FakeRoot root;
    LoadProbe load(root.path());
    root.write("proc/stat", "cpu  10 10 10 50 10 4 3 3 1000 1000\ncpu0 1\n");
    EXPECT_FLOAT_EQ(load.cpu_usage_pct(), 40.0F);  // since boot; guest columns do not count
    EXPECT_EQ(load.cpu_usage_pct(), 0.0F);
    root.write("proc/stat", "cpu  40 10 10 100 30 4 3 3\n");
    EXPECT_FLOAT_EQ(load.cpu_usage_pct(), 30.0F);
    root.write("proc/stat", "cpu  60 10 10 100 20 4 3 3\n");  // iowait ran backwards
    EXPECT_EQ(load.cpu_usage_pct(), 0.0F);
    root.write("proc/stat", "intr 5\n");
    EXPECT_EQ(load.cpu_usage_pct(), 0.0F);
}

}  // namespace
}  // namespace ox
