#pragma once

#include <cstdint>
#include <string>

namespace ox {

/// Reads the PC's load from /proc below `root`. Keeps the counters of the previous call, so one
/// thread owns it (the connector's worker).
class LoadProbe {
  public:
    explicit LoadProbe(std::string root = "") : root_(std::move(root)) {}

    /// CPU load in percent of all CPUs since the previous call; the first call gives the average
    /// since boot. 0 when nothing passed or /proc/stat cannot be read.
    float cpu_usage_pct();

    /// Available memory in MiB, 0 when unknown.
    [[nodiscard]] double ram_free_mb() const;

  private:
    std::string root_;
    uint64_t previous_idle_ = 0;
    uint64_t previous_total_ = 0;
};

}  // namespace ox
