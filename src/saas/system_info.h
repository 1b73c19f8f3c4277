#pragma once

#include <cstdint>
#include <string>

namespace ox {

/// What the platform is told about this PC when it registers.
struct SystemInfo {
    std::string cpu_model;     ///< empty when unknown
    std::string os_version;    ///< distribution name, or kernel name and release
    std::string gpu_model;     ///< empty when no GPU was identified
    uint32_t gpu_vram_mb = 0;  ///< MiB; no probe fills it
    uint32_t ram_mb = 0;       ///< MiB, 0 when unknown
};

/// Reads the PC's description from /proc, /sys and /etc below `root` (tests give a folder of
/// fixtures) and logs it in one line. What cannot be read keeps its fallback; never fails.
SystemInfo detect_system_info(const std::string& root = "");

}  // namespace ox
