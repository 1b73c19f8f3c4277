#include "saas/load_probe.h"

#include <array>
#include <cstdlib>
#include <fstream>

#include "saas/proc_text.h"

namespace ox {

float LoadProbe::cpu_usage_pct() {
    std::ifstream file(root_ + "/proc/stat");
    std::string line;
    if (!std::getline(file, line) || !line.starts_with("cpu ")) return 0.0F;

    enum { kUser, kNice, kSystem, kIdle, kIoWait, kIrq, kSoftIrq, kSteal, kCount };
    std::array<uint64_t, kCount> ticks{};
    const char* at = line.c_str() + 4;
    for (uint64_t& value : ticks) {
        char* end = nullptr;
        value = std::strtoull(at, &end, 10);
        if (end == at) break;  // older kernels have fewer columns
        at = end;
    }
    const uint64_t idle = ticks[kIdle] + ticks[kIoWait];
    const uint64_t total = ticks[kUser] + ticks[kNice] + ticks[kSystem] + ticks[kIrq] +
                           ticks[kSoftIrq] + ticks[kSteal] + idle;
    const uint64_t total_delta = total - previous_total_;
    const uint64_t idle_delta = idle - previous_idle_;
    previous_total_ = total;
    previous_idle_ = idle;
    // The kernel's idle and iowait counters sometimes run backwards.
    if (total_delta == 0 || total_delta < idle_delta) return 0.0F;
    return static_cast<float>(100.0 * static_cast<double>(total_delta - idle_delta) /
                              static_cast<double>(total_delta));
}

double LoadProbe::ram_free_mb() const {
    return static_cast<double>(meminfo_kb(root_ + "/proc/meminfo", "MemAvailable:")) / 1024.0;
}

}  // namespace ox
