#pragma once

#include <string_view>

namespace ox {

/// Distributions whose package names are known, each with those that are made from it.
enum class Distribution { Other, Debian, Ubuntu, Fedora, Arch };

/// Reads os-release(5): ID, then what ID_LIKE names first.
Distribution distribution_of(std::string_view os_release);

/// What an owner installs for an encoder, by the names of one distribution.
struct DriverPackages {
    std::string_view codecs;         ///< libavcodec with every encoder
    std::string_view nvidia_encode;  ///< holds libnvidia-encode.so.1
    std::string_view nvidia_cuda;    ///< holds libcuda.so.1
    std::string_view va_amd;
    std::string_view va_intel;
    std::string_view va_intel_old;   ///< for Intel graphics from before 2015
    std::string_view va_intel_full;  ///< with the encoders that the free one lacks
    std::string_view firmware;       ///< of Intel graphics
};

const DriverPackages& driver_packages(Distribution distribution);

}  // namespace ox
