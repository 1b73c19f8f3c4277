#include "saas/system_info.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <vector>

#include "log/log.h"
#include "saas/redaction.h"

namespace ox {
namespace {

/// `text` without white space at both ends.
std::string trim(std::string_view text) {
    constexpr std::string_view kBlank = "\t\n\r ";
    const size_t first = text.find_first_not_of(kBlank);
    if (first == text.npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(kBlank) - first + 1));
}

/// The rest of the first line of `path` that begins with `prefix`.
std::optional<std::string> line_after(const std::string& path, std::string_view prefix) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with(prefix)) return line.substr(prefix.size());
    }
    return std::nullopt;
}

/// The kB number of a line of /proc/meminfo, whose label comes with its colon; 0 without it.
uint64_t meminfo_kb(const std::string& root, std::string_view label) {
    const auto rest = line_after(root + "/proc/meminfo", label);
    return rest ? std::strtoull(rest->c_str(), nullptr, 10) : 0;
}

std::string cpu_model(const std::string& root) {
    const auto rest = line_after(root + "/proc/cpuinfo", "model name");
    const size_t colon = rest ? rest->find(':') : std::string::npos;
    return colon == std::string::npos ? "" : trim(std::string_view(*rest).substr(colon + 1));
}

/// Names inside a folder in ascending order, so that the choice does not depend on the file system.
std::vector<std::string> entries(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    std::error_code error;
    std::filesystem::directory_iterator it(folder, error);
    for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string os_description(const std::string& root) {
    const std::string path = root + "/etc/os-release";
    if (!std::ifstream(path)) {
        utsname kernel{};
        if (::uname(&kernel) != 0) return "Linux";
        return std::string(kernel.sysname) + " " + kernel.release;
    }
    std::string name = line_after(path, "PRETTY_NAME=").value_or("");
    if (name.size() >= 2 && name.front() == '"' && name.back() == '"') {
        name = name.substr(1, name.size() - 2);
    }
    return name;
}

std::string nvidia_model(const std::string& root) {
    const std::filesystem::path folder = root + "/proc/driver/nvidia/gpus";
    for (const std::string& gpu : entries(folder)) {
        if (gpu.starts_with('.')) continue;
        if (const auto rest = line_after(folder / gpu / "information", "Model:")) {
            if (std::string model = trim(*rest); !model.empty()) return model;
        }
    }
    return {};
}

std::string drm_model(const std::string& root) {
    const std::filesystem::path folder = root + "/sys/class/drm";
    for (const std::string& card : entries(folder)) {
        // "card0-HDMI-A-1" is an output of card0, no device of its own.
        if (!card.starts_with("card") || card.find('-') != card.npos) continue;
        if (const auto rest = line_after(folder / card / "device/uevent", "DRIVER=")) {
            if (const std::string driver = trim(*rest); !driver.empty()) return driver + " GPU";
        }
    }
    return {};
}

}  // namespace

SystemInfo detect_system_info(const std::string& root) {
    SystemInfo info;
    info.cpu_model = cpu_model(root);
    info.os_version = os_description(root);
    info.gpu_model = nvidia_model(root);
    if (info.gpu_model.empty()) info.gpu_model = drm_model(root);
    info.ram_mb =
        static_cast<uint32_t>(std::min<uint64_t>(meminfo_kb(root, "MemTotal:") >> 10U, UINT32_MAX));
    OX_INFO("sysinfo: cpu='%s' ram=%uMB os='%s' gpu='%s'", loggable(info.cpu_model).c_str(),
            info.ram_mb, loggable(info.os_version).c_str(), loggable(info.gpu_model).c_str());
    return info;
}

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
    return static_cast<double>(meminfo_kb(root_, "MemAvailable:")) / 1024.0;
}

}  // namespace ox
