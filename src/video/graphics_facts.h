#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ox {

inline constexpr uint32_t kVendorNvidia = 0x10DE;
inline constexpr uint32_t kVendorIntel = 0x8086;
inline constexpr uint32_t kVendorAmd = 0x1002;

/// Distributions whose package names are known, each with its derivatives.
enum class Distribution { Other, Debian, Ubuntu, Fedora, Arch };

/// Reads os-release(5): ID, then the names in ID_LIKE.
Distribution distribution_of(std::string_view os_release);

/// What the owner installs for an encoder, by one distribution's names.
struct DriverPackages {
    std::string_view codecs;         ///< libavcodec with every encoder
    std::string_view nvidia_encode;  ///< has libnvidia-encode.so.1
    std::string_view nvidia_cuda;    ///< has libcuda.so.1
    std::string_view va_amd;
    std::string_view va_intel;
    std::string_view va_intel_old;   ///< for Intel graphics from before 2015
    std::string_view va_intel_full;  ///< with the encoders that the free one lacks
    std::string_view firmware;       ///< of Intel graphics
};

const DriverPackages& driver_packages(Distribution distribution);

/// A graphics card's device file for work without a screen, /dev/dri/renderD*.
struct RenderNode {
    std::string path{};
    bool permitted = true;  ///< this user may open it
    uint32_t vendor = 0;    ///< PCI vendor of its card; 0 when unknown
};

/// What is known of the PC's graphics without loading a driver's library.
struct GraphicsFacts {
    std::vector<RenderNode> nodes{};  ///< by number
    bool nvidia_driver = false;       ///< NVIDIA's kernel driver is loaded
    Distribution distribution = Distribution::Other;
};

/// Looks at /dev/dri, /sys, /proc and /etc/os-release below `root`.
GraphicsFacts read_graphics_facts(const std::filesystem::path& root = "/");

}  // namespace ox
