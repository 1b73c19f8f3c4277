#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "video/driver_packages.h"

namespace ox {

inline constexpr uint32_t kVendorNvidia = 0x10DE;
inline constexpr uint32_t kVendorIntel = 0x8086;
inline constexpr uint32_t kVendorAmd = 0x1002;

/// A graphics card's device file for work without a screen, /dev/dri/renderD*.
struct RenderNode {
    std::string path{};
    bool permitted = true;  ///< this user may open it
    uint32_t vendor = 0;    ///< PCI vendor of its card; 0 when unknown
};

/// What is found out about the PC's graphics without a library of its driver.
struct GraphicsFacts {
    std::vector<RenderNode> nodes{};  ///< by number
    bool nvidia_driver = false;       ///< NVIDIA's kernel driver is loaded
    Distribution distribution = Distribution::Other;
};

/// Looks at /dev/dri, /sys, /proc and /etc/os-release below `root`.
GraphicsFacts read_graphics_facts(const std::filesystem::path& root = "/");

}  // namespace ox
