#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace ox {

/// What is found out about the PC's graphics without a library of its driver.
struct GraphicsFacts {
    enum class Node {
        Missing,    ///< no render node at all
        Forbidden,  ///< there is one, and this user must not open it
        Usable,
    };

    Node node = Node::Missing;
    std::string node_path{};     ///< of the one that `node` speaks of; empty when missing
    uint32_t vendor = 0;         ///< PCI vendor of its card; 0 when unknown
    bool nvidia_driver = false;  ///< NVIDIA's kernel driver is loaded
};

inline constexpr uint32_t kVendorNvidia = 0x10DE;
inline constexpr uint32_t kVendorIntel = 0x8086;
inline constexpr uint32_t kVendorAmd = 0x1002;

/// Looks at /dev/dri, /sys and /proc below `root`. Of several render nodes a usable one counts.
GraphicsFacts read_graphics_facts(const std::filesystem::path& root = "/");

}  // namespace ox
