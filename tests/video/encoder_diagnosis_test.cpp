#include "video/encoder_diagnosis.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <string>
#include <vector>

namespace ox {
namespace {

using Node = GraphicsFacts::Node;

const std::string kNode = "/dev/dri/renderD128";
constexpr const char* kNoDriver =
    "Failed to initialise VAAPI connection: -1 (unknown libva error).\n";
constexpr const char* kNewerDriver =
    "The minimum required Nvidia driver for nvenc is 470.57.02 or newer\n";

// Libav's words as its version 5.1 writes them.
TEST(EncoderDiagnosis, NamesTheCauseAndTheRemedy) {
    struct Case {
        EncoderBackend backend;
        std::string said;
        GraphicsFacts facts;
        const char* cause;
        const char* remedy;
        bool no_hardware = false;
        int error = AVERROR_EXTERNAL;
    };
    using enum EncoderBackend;
    const GraphicsFacts nothing;
    const GraphicsFacts nvidia{.nvidia_driver = true};
    const auto card = [](uint32_t vendor, Node node = Node::Usable) {
        return GraphicsFacts{.node = node, .node_path = kNode, .vendor = vendor};
    };
    const std::vector<Case> cases = {
        {Nvenc, "Cannot load libcuda.so.1\n", nothing, "no NVIDIA driver", "--encoder auto", true},
        {Nvenc, "Cannot load libcuda.so.1\n", nvidia, "libcuda.so.1 is missing", "libcuda1"},
        {Nvenc, std::string("Cannot load libnvidia-encode.so.1\n") + kNewerDriver, nvidia,
         "libnvidia-encode.so.1 is missing", "libnvidia-encode1"},
        {Nvenc, "Cannot load cuDeviceGetUuid\n", nvidia, "too old", "update"},
        {Nvenc,
         std::string("Driver does not support the required nvenc API version. Required: 11.1 "
                     "Found: 10.0\n") +
             kNewerDriver,
         nvidia, "too old", "to 470.57.02 or newer"},
        {Nvenc,
         "dl_fn->cuda_dl->cuInit(0) failed -> CUDA_ERROR_NO_DEVICE: no CUDA-capable device is "
         "detected\n",
         nvidia, "no CUDA-capable card", "nvidia-smi"},
        {Nvenc,
         "OpenEncodeSessionEx failed: out of memory (10): (no details)\nNo capable devices found\n",
         nvidia, "limit of simultaneous encodings", "close other programs"},
        {Nvenc, "HEVC Main10 what\nmore\n", nvidia, "HEVC Main10 what", "-v"},
        {Vaapi, "No VA display found for device /dev/dri/renderD128.\n", nothing, "no render node",
         "/dev/dri", true},
        {Vaapi, "Failed to open /dev/dri/renderD128 as DRM device node.\n",
         card(kVendorAmd, Node::Forbidden), "no permission to open /dev/dri/renderD128",
         "usermod -aG render"},
        {Vaapi, kNoDriver, card(kVendorIntel), "no VA-API driver", "install intel-media-va-driver"},
        {Vaapi, kNoDriver, card(kVendorAmd), "no VA-API driver", "install mesa-va-drivers"},
        {Vaapi, kNoDriver, card(kVendorNvidia), "NVIDIA", "nvenc", true},
        {Vaapi, "No usable encoding profile found.\n", card(kVendorAmd), "cannot encode this codec",
         "--codec h264"},
        {Software, "", nothing, "built without", "libavcodec", false, AVERROR_ENCODER_NOT_FOUND},
        {Software, "", nothing, "out of range", "--bitrate", false, AVERROR(ERANGE)},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.said);
        const EncoderChoice choice{"h264_some", row.backend, EncoderInput::Nv12, true, {}};
        const auto [reason, no_hardware] =
            diagnose({.choice = &choice, .error = row.error, .said = row.said}, row.facts);
        EXPECT_NE(reason.cause.find(row.cause), std::string::npos) << reason.cause;
        EXPECT_NE(reason.remedy.find(row.remedy), std::string::npos) << reason.remedy;
        EXPECT_EQ(no_hardware, row.no_hardware);
    }
}

}  // namespace
}  // namespace ox
