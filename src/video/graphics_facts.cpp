#include "video/graphics_facts.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <system_error>

namespace ox {
namespace {

namespace fs = std::filesystem;

uint32_t vendor_of(const fs::path& card) {
    std::ifstream file(card / "device/vendor");
    uint32_t vendor = 0;
    file >> std::hex >> vendor;
    return file ? vendor : 0;
}

std::string text_of(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// In the order of `Distribution`.
constexpr std::array<DriverPackages, 5> kPackages{{
    {"the distribution's full build of FFmpeg", "the NVIDIA driver's libraries for encoding",
     "the NVIDIA driver's libraries for CUDA", "Mesa's VA-API driver", "Intel's media driver",
     "Intel's older i965 driver", "Intel's media driver in its full build",
     "the firmware of Intel graphics"},
    {"libavcodec-extra", "libnvidia-encode1", "libcuda1", "mesa-va-drivers",
     "intel-media-va-driver", "i965-va-driver", "intel-media-va-driver-non-free",
     "firmware-misc-nonfree or firmware-intel-graphics"},
    {"libavcodec-extra", "libnvidia-encode-<driver version>", "libnvidia-compute-<driver version>",
     "mesa-va-drivers", "intel-media-va-driver", "i965-va-driver", "intel-media-va-driver-non-free",
     "linux-firmware"},
    {"RPM Fusion's ffmpeg (sudo dnf swap ffmpeg-free ffmpeg --allowerasing)",
     "RPM Fusion's xorg-x11-drv-nvidia-cuda", "RPM Fusion's xorg-x11-drv-nvidia-cuda",
     "RPM Fusion's mesa-va-drivers-freeworld", "RPM Fusion's intel-media-driver",
     "RPM Fusion's libva-intel-driver", "RPM Fusion's intel-media-driver", "intel-gpu-firmware"},
    {"ffmpeg", "nvidia-utils", "nvidia-utils", "mesa", "intel-media-driver", "libva-intel-driver",
     "intel-media-driver", "linux-firmware"},
}};

/// A variable's value without its quotes; empty when not set.
std::string_view value_of(std::string_view os_release, std::string_view name) {
    while (!os_release.empty()) {
        const size_t end = os_release.find('\n');
        std::string_view line = os_release.substr(0, end);
        os_release.remove_prefix(end == os_release.npos ? os_release.size() : end + 1);
        if (!line.starts_with(name) || !line.substr(name.size()).starts_with('=')) continue;
        line.remove_prefix(name.size() + 1);
        if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'')) {
            line = line.substr(1, line.size() - 2);
        }
        return line;
    }
    return {};
}

}  // namespace

Distribution distribution_of(std::string_view os_release) {
    const std::string names = std::string(value_of(os_release, "ID")) + " " +
                              std::string(value_of(os_release, "ID_LIKE")) + " ";
    for (size_t begin = 0; begin < names.size();) {
        const size_t end = names.find(' ', begin);
        const std::string_view name = std::string_view(names).substr(begin, end - begin);
        if (name == "debian") return Distribution::Debian;
        if (name == "ubuntu") return Distribution::Ubuntu;
        if (name == "fedora") return Distribution::Fedora;
        if (name == "arch") return Distribution::Arch;
        begin = end + 1;
    }
    return Distribution::Other;
}

const DriverPackages& driver_packages(Distribution distribution) {
    return kPackages.at(static_cast<size_t>(distribution));
}

GraphicsFacts read_graphics_facts(const fs::path& root) {
    GraphicsFacts facts;
    std::error_code error;
    facts.nvidia_driver = fs::exists(root / "proc/driver/nvidia", error);
    facts.distribution = distribution_of(text_of(root / "etc/os-release"));
    for (fs::directory_iterator entry(root / "dev/dri", error), end; !error && entry != end;
         entry.increment(error)) {
        const fs::path& node = entry->path();
        if (!node.filename().string().starts_with("renderD")) continue;
        facts.nodes.push_back({.path = node.string(),
                               .permitted = ::access(node.c_str(), R_OK | W_OK) == 0,
                               .vendor = vendor_of(root / "sys/class/drm" / node.filename())});
    }
    // The kernel numbers them from 128 to 191, so that the order by name is that by number.
    std::ranges::sort(facts.nodes, {}, &RenderNode::path);
    return facts;
}

}  // namespace ox
