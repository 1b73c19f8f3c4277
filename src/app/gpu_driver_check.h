#pragma once

#include <filesystem>

namespace ox {

/// True when the PC has an NVIDIA display adapter (PCI vendor 0x10de, display class) and the NVIDIA
/// kernel driver is not loaded. `root` stands for "/" and is a folder of fixtures in tests.
bool nvidia_driver_missing(const std::filesystem::path& root);

}  // namespace ox
