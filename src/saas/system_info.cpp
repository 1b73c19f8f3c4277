#include "saas/system_info.h"

#include <sys/utsname.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <vector>

#include "log/log.h"
#include "saas/log_text.h"
#include "saas/proc_text.h"

namespace ox {
namespace {

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
    info.cpu_model = cpuinfo_field(root + "/proc/cpuinfo", "model name");
    info.os_version = os_description(root);
    info.gpu_model = nvidia_model(root);
    if (info.gpu_model.empty()) info.gpu_model = drm_model(root);
    info.ram_mb = static_cast<uint32_t>(
        std::min<uint64_t>(meminfo_kb(root + "/proc/meminfo", "MemTotal:") >> 10U, UINT32_MAX));
    OX_INFO("sysinfo: cpu='%s' ram=%uMB os='%s' gpu='%s'", loggable(info.cpu_model).c_str(),
            info.ram_mb, loggable(info.os_version).c_str(), loggable(info.gpu_model).c_str());
    return info;
}

}  // namespace ox
