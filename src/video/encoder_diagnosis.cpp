#include "video/encoder_diagnosis.h"

extern "C" {
#include <libavutil/error.h>
}

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>

namespace ox {
namespace {

struct KnownMessage {
    std::string_view text;  ///< within libav's message
    std::string_view cause;
    std::string_view remedy;
};

constexpr std::string_view kNoCudaCard = "the NVIDIA driver finds no CUDA-capable card";
constexpr std::string_view kAskNvidia =
    "see what nvidia-smi says; in a container, pass the card into it";
constexpr std::string_view kCardMemoryFull = "the graphics card's memory is full";
constexpr std::string_view kCloseCardUsers = "close other programs that use the card";
constexpr std::string_view kCloseEncodings = "close other programs that record or stream";
constexpr std::string_view kWrongSize =
    "the picture is larger or smaller than the graphics card can encode";
constexpr std::string_view kOtherSize = "choose another size, or --encoder x264";

// The first match counts. A full table of sessions is error 10 with older drivers, 21 with newer.
constexpr std::array kNvencMessages{
    KnownMessage{"Cannot load ", "the NVIDIA driver is too old for this libavcodec",
                 "update the NVIDIA driver"},
    KnownMessage{"CUDA_ERROR_NO_DEVICE", kNoCudaCard, kAskNvidia},
    KnownMessage{"No CUDA capable devices found", kNoCudaCard, kAskNvidia},
    KnownMessage{"CUDA_ERROR_OUT_OF_MEMORY", kCardMemoryFull, kCloseCardUsers},
    KnownMessage{"cuInit(0) failed", "the NVIDIA driver does not start",
                 "restart the PC, as after every update of the driver; see what nvidia-smi says"},
    KnownMessage{"OpenEncodeSessionEx failed: out of memory (10)",
                 "the card's limit of simultaneous encodings is reached, or its memory full",
                 kCloseEncodings},
    KnownMessage{"OpenEncodeSessionEx failed: incompatible client key (21)",
                 "the card's limit of simultaneous encodings is reached", kCloseEncodings},
    KnownMessage{"OpenEncodeSessionEx failed", "the NVIDIA driver refuses to encode on this card",
                 "update the NVIDIA driver, or choose --encoder vaapi or x264"},
    KnownMessage{"failed: out of memory (10)", kCardMemoryFull, kCloseCardUsers},
    KnownMessage{"failed!: out of memory (10)", kCardMemoryFull, kCloseCardUsers},
    KnownMessage{" exceeds ", kWrongSize, kOtherSize},
    KnownMessage{"Frame Dimension less than", kWrongSize, kOtherSize},
};

constexpr std::array kVaapiMessages{
    KnownMessage{"Hardware does not support encoding at size", kWrongSize, kOtherSize},
    KnownMessage{"resolution not supported", kWrongSize, kOtherSize},
    KnownMessage{"resource allocation failed", kCardMemoryFull, kCloseCardUsers},
};

bool has(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

EncoderDiagnosis diagnosis(std::string_view cause, std::string_view remedy,
                           bool no_hardware = false) {
    return {{std::string(cause), std::string(remedy)}, no_hardware};
}

template <size_t kCount>
std::optional<EncoderDiagnosis> find_known(std::string_view messages,
                                           const std::array<KnownMessage, kCount>& known) {
    const auto at = std::ranges::find_if(
        known, [&](const KnownMessage& entry) { return has(messages, entry.text); });
    if (at == known.end()) return std::nullopt;
    return diagnosis(at->cause, at->remedy);
}

/// Whether a line only repeats the number of an earlier error: "Encode failed: -5.".
bool repeats_error_number(std::string_view line) {
    const size_t at = line.rfind(": -");
    return at != line.npos && line.find_first_not_of("0123456789.", at + 3) == line.npos;
}

/// Libav's last error, or its text for the error's number when it logged none.
std::string last_error_text(const EncoderFailure& failure) {
    std::string_view last;
    for (std::string_view rest = failure.errors; !rest.empty();) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (!line.empty() && !repeats_error_number(line)) last = line;
    }
    if (last.ends_with('.')) last.remove_suffix(1);
    if (!last.empty()) return std::string(last);
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(failure.error, text.data(), text.size());
    return text.data();
}

std::string general_remedy(const EncoderFailure& failure) {
    if (failure.choice->backend == EncoderBackend::Software) {
        return "update libavcodec; -v logs all that libav says";
    }
    if (failure.stage == EncoderStage::Streaming) {
        return "see in the kernel's log (sudo dmesg) whether the card was reset; if it happens "
               "again, update its driver or choose --encoder x264";
    }
    return "update the driver or libavcodec; -v logs all that libav says";
}

EncoderDiagnosis codec_refused(const EncoderFailure& failure, std::string_view encoder,
                               const std::string& remedy = "") {
    const VideoCodec codec = failure.choice->codec;
    const bool is_fallback_codec = codec == VideoCodec::H264;
    return diagnosis(std::string(encoder) + " cannot encode " + codec_info(codec).display_name,
                     remedy + "choose " + (is_fallback_codec ? "--encoder x264" : "--codec h264"));
}

EncoderDiagnosis old_driver(std::string_view messages) {
    constexpr std::string_view kBefore = "required Nvidia driver for nvenc is ";
    EncoderDiagnosis result =
        diagnosis("the NVIDIA driver is too old for this libavcodec", "update the NVIDIA driver");
    if (const size_t at = messages.find(kBefore); at != std::string_view::npos) {
        const std::string_view version = messages.substr(at + kBefore.size());
        result.reason.remedy +=
            " to " + std::string(version.substr(0, version.find(' '))) + " or newer";
    }
    return result;
}

std::optional<EncoderDiagnosis> diagnose_nvenc(const EncoderFailure& failure,
                                               const GraphicsFacts& facts) {
    const std::string_view messages = failure.messages;
    const DriverPackages& packages = driver_packages(facts.distribution);
    const auto install = [](std::string_view package) { return "install " + std::string(package); };
    if (has(messages, "Cannot load libcuda.so.1")) {
        if (facts.nvidia_driver) {
            return diagnosis("the NVIDIA driver's library libcuda.so.1 is missing",
                             install(packages.nvidia_cuda));
        }
        return diagnosis(
            "no NVIDIA driver is installed (libcuda.so.1 is missing)",
            "install the driver with its encode library, or without an NVIDIA card choose "
            "--encoder auto",
            true);
    }
    if (has(messages, "Cannot load libnvidia-encode.so.1")) {
        return diagnosis("the NVIDIA driver's encode library libnvidia-encode.so.1 is missing",
                         install(packages.nvidia_encode));
    }
    if (has(messages, "required nvenc API version")) return old_driver(messages);
    if (auto known = find_known(messages, kNvencMessages)) return known;
    if (has(messages, "Codec not supported") || has(messages, "No capable devices found")) {
        return codec_refused(failure, "the NVIDIA card");
    }
    return std::nullopt;
}

const RenderNode* node_of(const EncoderFailure& failure, const GraphicsFacts& facts) {
    const auto at = std::ranges::find(facts.nodes, failure.node, &RenderNode::path);
    return at == facts.nodes.end() ? nullptr : &*at;
}

EncoderDiagnosis no_va_driver(const RenderNode& node, const DriverPackages& packages) {
    const std::string amd(packages.va_amd);
    const std::string intel(packages.va_intel);
    std::string remedy = "install " + amd + " (AMD) or " + intel + " (Intel)";
    if (node.vendor == kVendorAmd) remedy = "install " + amd;
    if (node.vendor == kVendorIntel) {
        remedy = "install " + intel + ", or " + std::string(packages.va_intel_old) +
                 " for a processor older than 2015";
    }
    return diagnosis("no VA-API driver works with " + node.path, remedy);
}

EncoderDiagnosis not_for_nvidia() {
    return diagnosis("NVIDIA cards do not encode through VA-API", "use --encoder nvenc or auto",
                     true);
}

std::optional<EncoderDiagnosis> diagnose_vaapi_device(const EncoderFailure& failure,
                                                      const GraphicsFacts& facts) {
    const RenderNode* node = node_of(failure, facts);
    if (node == nullptr && !facts.nodes.empty()) node = &facts.nodes.front();
    if (node == nullptr) {
        return diagnosis(
            "there is no render node in /dev/dri",
            "load the graphics card's kernel driver (in a container, pass /dev/dri into "
            "it), or choose --encoder auto",
            true);
    }
    if (!node->permitted) {
        return diagnosis("no permission to open " + node->path,
                         "sudo usermod -aG render $USER, then log in again");
    }
    if (!failure.messages.empty() &&
        !has(failure.messages, "Failed to initialise VAAPI connection") &&
        !has(failure.messages, "No VA display found")) {
        return std::nullopt;
    }
    if (node->vendor == kVendorNvidia) return not_for_nvidia();
    return no_va_driver(*node, driver_packages(facts.distribution));
}

std::optional<EncoderDiagnosis> diagnose_vaapi(const EncoderFailure& failure,
                                               const GraphicsFacts& facts) {
    if (failure.stage == EncoderStage::Device) return diagnose_vaapi_device(failure, facts);
    const std::string_view messages = failure.messages;
    const RenderNode* node = node_of(failure, facts);
    const uint32_t vendor = node == nullptr ? 0 : node->vendor;
    const DriverPackages& packages = driver_packages(facts.distribution);
    if (has(messages, "No usable encoding profile") ||
        has(messages, "No usable encoding entrypoint")) {
        if (vendor == kVendorNvidia) return not_for_nvidia();
        std::string remedy;
        if (vendor == kVendorIntel) {
            remedy = "install " + std::string(packages.va_intel_full) + ", or ";
        } else if (vendor == kVendorAmd) {
            remedy = "install " + std::string(packages.va_amd) + ", or ";
        }
        return codec_refused(failure, "the card's VA-API driver", remedy);
    }
    if (has(messages, "Driver does not support") && has(messages, " RC mode")) {
        // Intel's low-power encoders, the only ones of newer chips, need that firmware for it.
        return diagnosis("the card's VA-API driver knows no constant bitrate",
                         vendor == kVendorIntel
                             ? "have the card's HuC firmware loaded (package " +
                                   std::string(packages.firmware) +
                                   ", kernel option i915.enable_guc=2), or choose --encoder x264"
                             : "update the VA-API driver, or choose --encoder x264");
    }
    return find_known(messages, kVaapiMessages);
}

}  // namespace

EncoderDiagnosis diagnose(const EncoderFailure& failure, const GraphicsFacts& facts) {
    const EncoderChoice& choice = *failure.choice;
    if (failure.error == AVERROR_ENCODER_NOT_FOUND) {
        return diagnosis(std::string("this libavcodec was built without ") + choice.name,
                         "install " + std::string(driver_packages(facts.distribution).codecs));
    }
    if (failure.error == AVERROR(ERANGE)) {
        return diagnosis("the picture's size, rate or bitrate is out of range",
                         "check --width, --height, --fps and --bitrate");
    }
    if (failure.error == AVERROR(ENOMEM) && failure.messages.empty()) {
        return diagnosis("the PC's memory is full", "close other programs");
    }
    std::optional<EncoderDiagnosis> known;
    if (choice.backend == EncoderBackend::Nvenc) known = diagnose_nvenc(failure, facts);
    if (choice.backend == EncoderBackend::Vaapi) known = diagnose_vaapi(failure, facts);
    if (!known) known = diagnosis(last_error_text(failure), general_remedy(failure));
    const bool several_cards = choice.backend == EncoderBackend::Vaapi && facts.nodes.size() > 1;
    if (several_cards && failure.stage != EncoderStage::Device && !failure.node.empty()) {
        known->reason.cause += " (" + failure.node + ")";
    }
    return *known;
}

const EncoderFailure& most_informative(std::span<const EncoderFailure> attempts,
                                       const GraphicsFacts& facts) {
    const auto weight = [&](const EncoderFailure& attempt) {
        const RenderNode* node = node_of(attempt, facts);
        if (node != nullptr && node->vendor == kVendorNvidia) return 0;
        if (attempt.stage != EncoderStage::Device) return 2;
        return node != nullptr ? 1 : 0;
    };
    return *std::ranges::max_element(attempts, {}, weight);  // the first of equal ones
}

}  // namespace ox
