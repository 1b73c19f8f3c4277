#include "app/gpu_driver_check.h"

#include <fstream>
#include <string>
#include <system_error>

namespace ox {
namespace {

namespace fs = std::filesystem;

std::string first_word(const fs::path& file) {
    std::ifstream in(file);
    std::string word;
    in >> word;
    return word;
}

bool is_nvidia_display(const fs::path& pci_device) {
    if (first_word(pci_device / "vendor") != "0x10de") return false;
    // PCI base class 0x03 is "display controller". DRM cards are display adapters by being there,
    // whether or not the class file can be read.
    const std::string pci_class = first_word(pci_device / "class");
    return pci_class.empty() || pci_class.starts_with("0x03");
}

/// True when some entry of `folder`, seen through `device_of`, is an NVIDIA display adapter.
template <typename DeviceOf>
bool any_nvidia(const fs::path& folder, DeviceOf device_of) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (is_nvidia_display(device_of(entry->path()))) return true;
    }
    return false;
}

}  // namespace

bool nvidia_driver_missing(const fs::path& root) {
    std::error_code error;
    if (fs::exists(root / "proc/driver/nvidia", error)) return false;
    return any_nvidia(root / "sys/class/drm",
                      [](const fs::path& card) { return card / "device"; }) ||
           any_nvidia(root / "sys/bus/pci/devices", [](const fs::path& device) { return device; });
}

}  // namespace ox
