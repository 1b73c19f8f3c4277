#include "video/encoder_diagnosis.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace ox {
namespace {

const std::string kNode = "/dev/dri/renderD128";
const std::string kOtherNode = "/dev/dri/renderD129";
constexpr const char* kNoDriver =
    "Failed to initialise VAAPI connection: -1 (unknown libva error).\n";
constexpr const char* kNoCbr = "Driver does not support CBR RC mode (supported modes: CQP, VBR).\n";
constexpr const char* kNewerDriver =
    "The minimum required Nvidia driver for nvenc is 470.57.02 or newer\n";

const EncoderChoice kNvenc{"h264_nvenc", EncoderBackend::Nvenc, EncoderInput::Nv12, true, {}};
const EncoderChoice kVaapi{
    "h264_vaapi", EncoderBackend::Vaapi, EncoderInput::VaapiSurface, false, {}};
const EncoderChoice kHevcVaapi{
    "hevc_vaapi", EncoderBackend::Vaapi, EncoderInput::VaapiSurface, false, {}};
const EncoderChoice kSoftware{"libx264", EncoderBackend::Software, EncoderInput::Yuv420p, true, {}};

GraphicsFacts card(uint32_t vendor, bool permitted = true) {
    return {.nodes = {{.path = kNode, .permitted = permitted, .vendor = vendor}}};
}

// Libav's words as its versions 5.1 to 9 write them.
TEST(EncoderDiagnosis, NamesTheCauseAndTheRemedy) {
    struct Case {
        const EncoderChoice& choice;
        EncoderStage stage;
        std::string said;
        GraphicsFacts facts;
        const char* cause;
        const char* remedy;
        bool no_hardware = false;
        int error = AVERROR_EXTERNAL;
    };
    using enum EncoderStage;
    const GraphicsFacts nothing;
    const GraphicsFacts nvidia{.nvidia_driver = true, .distribution = Distribution::Debian};
    GraphicsFacts intel_on_arch = card(kVendorIntel);
    intel_on_arch.distribution = Distribution::Arch;
    const GraphicsFacts fedora{.distribution = Distribution::Fedora};
    const std::vector<Case> cases = {
        {kNvenc, Opening, "Cannot load libcuda.so.1\n", nothing, "no NVIDIA driver",
         "--encoder auto", true},
        {kNvenc, Opening, "Cannot load libcuda.so.1\n", nvidia, "libcuda.so.1 is missing",
         "libcuda1"},
        {kNvenc, Opening, std::string("Cannot load libnvidia-encode.so.1\n") + kNewerDriver, nvidia,
         "libnvidia-encode.so.1 is missing", "libnvidia-encode1"},
        {kNvenc, Opening, "Cannot load cuDeviceGetUuid\n", nvidia, "too old", "update"},
        {kNvenc, Opening,
         std::string("Driver does not support the required nvenc API version. Required: 11.1 "
                     "Found: 10.0\n") +
             kNewerDriver,
         nvidia, "too old", "to 470.57.02 or newer"},
        {kNvenc, Opening,
         "dl_fn->cuda_dl->cuInit(0) failed -> CUDA_ERROR_NO_DEVICE: no CUDA-capable device is "
         "detected\n",
         nvidia, "no CUDA-capable card", "nvidia-smi"},
        {kNvenc, Opening,
         "OpenEncodeSessionEx failed: out of memory (10): (no details)\nNo capable devices found\n",
         nvidia, "limit of simultaneous encodings", "close other programs"},
        {kNvenc, Opening,
         "OpenEncodeSessionEx failed: incompatible client key (21): (no details)\n"
         "No capable devices found\n",
         nvidia, "limit of simultaneous encodings", "close other programs"},
        {kNvenc, Opening, "InitializeEncoder failed: out of memory (10): \n", nvidia,
         "card's memory is full", "close other programs"},
        {kNvenc, Opening, "Width 5000 exceeds 4096\nNo capable devices found\n", nvidia, "larger",
         "another size"},
        {kNvenc, Opening, "Codec not supported\nNo capable devices found\n", nvidia,
         "cannot encode H.264", "choose --encoder x264"},
        {kNvenc, Opening, "HEVC Main10 what\nmore\n", nvidia, "more", "-v"},
        {kNvenc, Streaming, "EncodePicture failed!: generic error (20): \n", nvidia,
         "EncodePicture failed!", "dmesg"},
        {kVaapi, Device, "No VA display found for device /dev/dri/renderD128.\n", nothing,
         "no render node", "/dev/dri", true},
        {kVaapi, Device, "", card(kVendorAmd, false), "no permission to open /dev/dri/renderD128",
         "usermod -aG render"},
        {kVaapi, Device, kNoDriver, intel_on_arch, "no VA-API driver",
         "install intel-media-driver"},
        {kVaapi, Device, kNoDriver, card(kVendorNvidia), "NVIDIA", "nvenc", true},
        {kVaapi, Opening, "No usable encoding profile found.\n", card(kVendorAmd),
         "cannot encode H.264", "choose --encoder x264"},
        {kVaapi, Opening, "No usable encoding profile found.\n", card(kVendorNvidia), "NVIDIA",
         "nvenc", true},
        {kHevcVaapi, Opening, "No usable encoding profile found.\n", card(kVendorAmd),
         "cannot encode HEVC", "choose --codec h264"},
        {kVaapi, Opening, kNoCbr, card(kVendorIntel), "no constant bitrate", "HuC"},
        {kVaapi, Opening, kNoCbr, card(kVendorAmd), "no constant bitrate", "update the VA-API"},
        {kVaapi, Opening,
         "Hardware does not support encoding at size 1280x720 (constraints: width 16-1024 height "
         "16-4096).\n",
         card(kVendorAmd), "larger or smaller", "another size"},
        {kVaapi, Opening,
         "Failed to create encode pipeline context: 2 (resource allocation failed).\n",
         card(kVendorAmd), "card's memory is full", "close other programs"},
        {kVaapi, Streaming,
         "Failed to end picture encode issue: 24 (internal encoding error).\nEncode failed: -5.\n",
         card(kVendorAmd), "Failed to end picture encode issue: 24", "dmesg"},
        {kSoftware, Settings, "", fedora, "built without", "dnf swap ffmpeg-free", false,
         AVERROR_ENCODER_NOT_FOUND},
        {kSoftware, Settings, "", nothing, "out of range", "--bitrate", false, AVERROR(ERANGE)},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.said);
        const auto [reason, no_hardware] = diagnose({.choice = &row.choice,
                                                     .stage = row.stage,
                                                     .error = row.error,
                                                     .node = kNode,
                                                     .said = row.said,
                                                     .errors = row.said},
                                                    row.facts);
        EXPECT_NE(reason.cause.find(row.cause), std::string::npos) << reason.cause;
        EXPECT_NE(reason.remedy.find(row.remedy), std::string::npos) << reason.remedy;
        EXPECT_EQ(no_hardware, row.no_hardware);
    }
}

TEST(EncoderDiagnosis, OfSeveralCardsTheOneThatTellsMostIsBlamed) {
    using enum EncoderStage;
    const auto blamed = [](EncoderStage usual, uint32_t usual_vendor, EncoderStage other) {
        const GraphicsFacts facts{.nodes = {{.path = kNode, .vendor = usual_vendor},
                                            {.path = kOtherNode, .vendor = kVendorAmd}}};
        const std::vector<EncoderFailure> attempts{{.stage = usual, .node = kNode},
                                                   {.stage = Device},
                                                   {.stage = other, .node = kOtherNode}};
        return most_telling(attempts, facts).node;
    };
    EXPECT_EQ(blamed(Device, kVendorIntel, Device), kNode) << "the first, when all is equal";
    EXPECT_EQ(blamed(Device, kVendorNvidia, Device), kOtherNode);
    EXPECT_EQ(blamed(Device, kVendorIntel, Opening), kOtherNode);
    EXPECT_EQ(blamed(Opening, kVendorNvidia, Device), kOtherNode);
    EXPECT_EQ(blamed(Opening, kVendorIntel, Device), kNode);
}

TEST(EncoderDiagnosis, LooksAtThePc) {
    const test::TempDir pc;
    const std::filesystem::path root = pc.path();
    for (const char* folder : {"dev/dri", "etc", "sys/class/drm/renderD129/device"}) {
        std::filesystem::create_directories(root / folder);
    }
    for (const char* file : {"renderD129", "renderD128", "card0"}) {
        std::ofstream(root / "dev/dri" / file) << "";
    }
    std::ofstream(root / "sys/class/drm/renderD129/device/vendor") << "0x8086\n";
    std::ofstream(root / "etc/os-release") << "NAME=\"Some\"\nID=some\nID_LIKE=\"ubuntu debian\"\n";
    const GraphicsFacts facts = read_graphics_facts(root);
    ASSERT_EQ(facts.nodes.size(), 2U);
    EXPECT_EQ(facts.nodes[0].path, root / "dev/dri/renderD128");
    EXPECT_EQ(facts.nodes[0].vendor, 0U);
    EXPECT_EQ(facts.nodes[1].vendor, kVendorIntel);
    EXPECT_EQ(facts.distribution, Distribution::Ubuntu);
    EXPECT_EQ(distribution_of("ID=fedora"), Distribution::Fedora);
    EXPECT_EQ(distribution_of("ID=\"opensuse-leap\"\nID_LIKE=\"suse opensuse\"\n"),
              Distribution::Other);
}

}  // namespace
}  // namespace ox
