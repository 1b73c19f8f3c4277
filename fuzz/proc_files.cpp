// Files of /proc and /sys with any content.

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fuzz.h"
#include "saas/system_info.h"

namespace {

/// A temporary root folder.
class Root {
  public:
    Root() : path_("/tmp/orvex-fuzz-" + std::to_string(::getpid())) {
        for (const char* folder : {"/proc", "/etc", "/sys/class/drm/card0/device",
                                   "/proc/driver/nvidia/gpus/0000:01:00.0"})
            std::filesystem::create_directories(path_ + folder);
    }
    ~Root() { std::filesystem::remove_all(path_); }
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;

    void write(const char* name, const std::string& content) const {
        std::ofstream(path_ + name, std::ios::binary | std::ios::trunc) << content;
    }
    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Root root;
    FuzzedDataProvider input(data, size);
    for (const char* name : {"/proc/cpuinfo", "/proc/meminfo", "/proc/stat", "/etc/os-release",
                             "/sys/class/drm/card0/device/uevent",
                             "/proc/driver/nvidia/gpus/0000:01:00.0/information"})
        root.write(name, input.ConsumeRandomLengthString(500));
    ox::detect_system_info(root.path());
    ox::LoadProbe load(root.path());
    for (int i = 0; i < 2; ++i) {
        const float percent = load.cpu_usage_pct();
        OX_FUZZ_REQUIRE(percent >= 0.0F && percent <= 100.0F);
        root.write("/proc/stat", input.ConsumeRandomLengthString(500));
    }
    OX_FUZZ_REQUIRE(load.ram_free_mb() >= 0.0);
    return 0;
}
