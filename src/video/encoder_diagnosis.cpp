#include "video/encoder_diagnosis.h"

extern "C" {
#include <libavutil/error.h>
}

#include <array>
#include <cerrno>
#include <optional>
#include <string_view>

namespace ox {
namespace {

using Node = GraphicsFacts::Node;

struct KnownWords {
    std::string_view words;  ///< within libav's own
    std::string_view cause;
    std::string_view remedy;
};

// The first that fits counts: later lines of libav only tell that it gave up.
constexpr std::array kNvencWords{
    KnownWords{"Cannot load libnvidia-encode.so.1",
               "the NVIDIA driver's encode library libnvidia-encode.so.1 is missing",
               "install it (Debian: libnvidia-encode1, Ubuntu: libnvidia-encode-<driver version>)"},
    KnownWords{"Cannot load ", "the NVIDIA driver is too old for this libavcodec",
               "update the NVIDIA driver"},
    KnownWords{"CUDA_ERROR_NO_DEVICE", "the NVIDIA driver finds no CUDA-capable card",
               "see what nvidia-smi says; in a container, pass the card into it"},
    KnownWords{"No CUDA capable devices found", "the NVIDIA driver finds no CUDA-capable card",
               "see what nvidia-smi says; in a container, pass the card into it"},
    KnownWords{"CUDA_ERROR_OUT_OF_MEMORY", "the graphics card's memory is full",
               "close other programs that use the card"},
    KnownWords{"cuInit(0) failed", "the NVIDIA driver does not start",
               "restart the PC, as after every update of the driver; see what nvidia-smi says"},
    KnownWords{"OpenEncodeSessionEx failed: out of memory (10)",
               "the card's limit of simultaneous encodings is reached, or its memory full",
               "close other programs that record or stream"},
    KnownWords{"OpenEncodeSessionEx failed", "the NVIDIA driver refuses to encode on this card",
               "update the NVIDIA driver, or choose --encoder vaapi or x264"},
    KnownWords{"No capable devices found", "the NVIDIA card cannot encode this codec or size",
               "choose --codec h264, a smaller picture, or --encoder x264"},
};

bool has(std::string_view text, std::string_view words) {
    return text.find(words) != std::string_view::npos;
}

/// The first line of libav's words, or its text for the error when it said nothing.
std::string in_own_words(const EncoderFailure& failure) {
    std::string_view said = failure.said;
    said = said.substr(0, said.find('\n'));
    if (!said.empty()) return std::string(said);
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(failure.error, text.data(), text.size());
    return text.data();
}

EncoderDiagnosis old_driver(std::string_view said) {
    constexpr std::string_view kBefore = "required Nvidia driver for nvenc is ";
    EncoderDiagnosis result{
        {"the NVIDIA driver is too old for this libavcodec", "update the NVIDIA driver"}};
    if (const size_t at = said.find(kBefore); at != std::string_view::npos) {
        const std::string_view version = said.substr(at + kBefore.size());
        result.reason.remedy +=
            " to " + std::string(version.substr(0, version.find(' '))) + " or newer";
    }
    return result;
}

EncoderDiagnosis without_libcuda(bool driver_loaded) {
    if (driver_loaded) {
        return {{"the NVIDIA driver's library libcuda.so.1 is missing",
                 "install it (Debian: libcuda1, Ubuntu: libnvidia-compute-<driver version>)"}};
    }
    return {{"no NVIDIA driver is installed (libcuda.so.1 is missing)",
             "install the driver with its encode library, or without an NVIDIA card choose "
             "--encoder auto"},
            true};
}

std::optional<EncoderDiagnosis> diagnose_nvenc(std::string_view said, const GraphicsFacts& facts) {
    if (has(said, "Cannot load libcuda.so.1")) return without_libcuda(facts.nvidia_driver);
    if (has(said, "required nvenc API version")) return old_driver(said);
    for (const auto& [words, cause, remedy] : kNvencWords) {
        if (has(said, words)) return EncoderDiagnosis{{std::string(cause), std::string(remedy)}};
    }
    return std::nullopt;
}

std::string va_driver_packages(uint32_t vendor) {
    if (vendor == kVendorAmd) return "mesa-va-drivers";
    if (vendor == kVendorIntel)
        return "intel-media-va-driver, or i965-va-driver for a processor older than 2015";
    return "mesa-va-drivers (AMD) or intel-media-va-driver (Intel)";
}

std::optional<EncoderDiagnosis> diagnose_vaapi(std::string_view said, const GraphicsFacts& facts) {
    if (has(said, "No usable encoding profile") || has(said, "No usable encoding entrypoint")) {
        return EncoderDiagnosis{
            {"the card's VA-API driver cannot encode this codec",
             facts.vendor == kVendorIntel
                 ? "install intel-media-va-driver-non-free, or choose --codec h264"
                 : "install a VA-API driver with H.264 and HEVC, or choose --codec h264"}};
    }
    if (has(said, "Driver does not support") && has(said, " RC mode")) {
        return EncoderDiagnosis{{"the card's VA-API driver knows no constant bitrate",
                                 "update the VA-API driver, or choose --encoder x264"}};
    }
    if (facts.node == Node::Missing) {
        return EncoderDiagnosis{{"there is no render node in /dev/dri",
                                 "load the graphics card's kernel driver (in a container, pass "
                                 "/dev/dri into it), or choose --encoder auto"},
                                true};
    }
    if (facts.node == Node::Forbidden) {
        return EncoderDiagnosis{{"no permission to open " + facts.node_path,
                                 "sudo usermod -aG render $USER, then log in again"}};
    }
    if (!said.empty() && !has(said, "Failed to initialise VAAPI connection") &&
        !has(said, "No VA display found"))
        return std::nullopt;
    if (facts.vendor == kVendorNvidia) {
        return EncoderDiagnosis{
            {"NVIDIA cards do not encode through VA-API", "use --encoder nvenc or auto"}, true};
    }
    return EncoderDiagnosis{{"no VA-API driver works with " + facts.node_path,
                             "install " + va_driver_packages(facts.vendor)}};
}

}  // namespace

EncoderDiagnosis diagnose(const EncoderFailure& failure, const GraphicsFacts& facts) {
    const EncoderChoice& choice = *failure.choice;
    if (failure.error == AVERROR_ENCODER_NOT_FOUND) {
        return {{std::string("this libavcodec was built without ") + choice.name,
                 "install the distribution's full build (Debian, Ubuntu: libavcodec-extra)"}};
    }
    if (failure.error == AVERROR(ERANGE)) {
        return {{"the picture's size, rate or bitrate is out of range",
                 "check --width, --height, --fps and --bitrate"}};
    }
    if (failure.error == AVERROR(ENOMEM) && failure.said.empty()) {
        return {{"the PC's memory is full", "close other programs"}};
    }
    std::optional<EncoderDiagnosis> known;
    if (choice.backend == EncoderBackend::Nvenc) known = diagnose_nvenc(failure.said, facts);
    if (choice.backend == EncoderBackend::Vaapi) known = diagnose_vaapi(failure.said, facts);
    if (known) return *known;
    return {
        {in_own_words(failure), "update the driver or libavcodec; -v logs all that libav says"}};
}

}  // namespace ox
