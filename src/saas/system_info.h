#pragma once

#include <cstdint>
#include <string>

namespace ox {

struct SystemInfo {
    std::string cpu_model;     ///< empty when unknown
    std::string os_version;    ///< distribution name, or kernel name and release
    std::string gpu_model;     ///< empty when no GPU was identified
    uint32_t gpu_vram_mb = 0;  ///< MiB; no probe fills it
    uint32_t ram_mb = 0;       ///< MiB, 0 when unknown
};

/// From /proc, /sys and /etc below `root`; logs one line. Never fails.
SystemInfo detect_system_info(const std::string& root = "");

/// Reads the PC's load from /proc below `root`. One thread owns it.
class LoadProbe {
  public:
    explicit LoadProbe(std::string root = "") : root_(std::move(root)) {}

    /// CPU load in percent since the previous call, at first since boot; 0 when unknown.
    float cpu_usage_pct();

    /// Available memory in MiB, 0 when unknown.
    [[nodiscard]] double ram_free_mb() const;

  private:
    std::string root_;
    uint64_t previous_idle_ = 0;
    uint64_t previous_total_ = 0;
};

}  // namespace ox
