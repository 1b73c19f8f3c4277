#include "app/gpu_driver_check.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/temp_dir.h"

namespace ox {
namespace {

namespace fs = std::filesystem;

void write_file(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

TEST(NvidiaDriverCheck, MissingOnlyWithAnAdapterAndWithoutTheDriver) {
    struct Case {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        bool missing;
    };
    const std::string gpu = "sys/bus/pci/devices/0000:01:00.0/";
    const Case cases[] = {
        {"adapter on the PCI bus, other driver or none",
         {{gpu + "vendor", "0x10de\n"}, {gpu + "class", "0x030000\n"}},
         true},
        {"its audio function is no display",
         {{gpu + "vendor", "0x10de\n"}, {gpu + "class", "0x040300\n"}},
         false},
        {"seen as a DRM card only", {{"sys/class/drm/card0/device/vendor", "0x10de\n"}}, true},
        {"driver loaded",
         {{gpu + "vendor", "0x10de\n"},
          {gpu + "class", "0x030200\n"},
          {"proc/driver/nvidia/version", "NVRM\n"}},
         false},
    };
    for (const Case& c : cases) {
        const test::TempDir root;
        for (const auto& [file, text] : c.files)
            write_file(fs::path(root.path()) / file, text);
        EXPECT_EQ(nvidia_driver_missing(root.path()), c.missing) << c.name;
    }
}

}  // namespace
}  // namespace ox
