#include "video/encoder_diagnosis.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" {
#include <libavutil/error.h>
}

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace ox {
namespace {

const std::string kNode = "/dev/dri/renderD128";
const std::string kOtherNode = "/dev/dri/renderD129";
constexpr const char* kNoDriver = "Failed to initialise VAAPI connection: -1\n";
constexpr const char* kNoProfile = "No usable encoding profile found.\n";
constexpr const char* kNoCbr = "Driver does not support CBR RC mode (supported modes: CQP, VBR).\n";
const std::string kNewerDriver =
    "The minimum required Nvidia driver for nvenc is 470.57.02 or newer\n";

/// The ladder's H.264 encoder of this kind.
const EncoderChoice& choice(EncoderBackend backend) {
    return *std::ranges::find(encoder_ladder(VideoCodec::H264), backend, &EncoderChoice::backend);
}
const EncoderChoice& kNvenc = choice(EncoderBackend::Nvenc);
const EncoderChoice& kVaapi = choice(EncoderBackend::Vaapi);
const EncoderChoice& kSoftware = choice(EncoderBackend::Software);

GraphicsFacts card(uint32_t vendor, bool permitted = true) {
    return {.nodes = {{.path = kNode, .permitted = permitted, .vendor = vendor}}};
}

// Libav's messages as its versions 5.1 to 9 write them.
TEST(EncoderDiagnosis, NamesTheCauseAndTheRemedy) {
    struct Case {
        const EncoderChoice& choice;
        EncoderStage stage;
        std::string messages;
        GraphicsFacts facts;
        const char* diagnosis;  ///< regular expression for cause and remedy
        bool no_hardware = false;
        int error = AVERROR_EXTERNAL;
    };
    using enum EncoderStage;
    const GraphicsFacts nothing;
    const GraphicsFacts nvidia{.nvidia_driver = true, .distribution = Distribution::Debian};
    const GraphicsFacts amd = card(kVendorAmd), intel = card(kVendorIntel);
    const GraphicsFacts nvidia_card = card(kVendorNvidia);
    GraphicsFacts intel_on_arch = intel;
    intel_on_arch.distribution = Distribution::Arch;
    const GraphicsFacts fedora{.distribution = Distribution::Fedora};
    const std::vector<Case> cases = {
        {kNvenc, Opening, "Cannot load libcuda.so.1\n", nothing, "no NVIDIA driver.*auto", true},
        {kNvenc, Opening, "Cannot load libcuda.so.1\n", nvidia, "libcuda.so.1 is.*libcuda1"},
        {kNvenc, Opening,
         "Driver does not support the required nvenc API version.\n" + kNewerDriver, nvidia,
         "too old.*to 470.57.02 or newer"},
        {kNvenc, Opening, "cuda_dl->cuInit(0) failed -> CUDA_ERROR_NO_DEVICE: none\n", nvidia,
         "no CUDA-capable card.*nvidia-smi"},
        {kNvenc, Opening, "OpenEncodeSessionEx failed: out of memory (10)\n", nvidia,
         "simultaneous encodings.*close other"},
        {kNvenc, Opening, "HEVC Main10 what\nmore\n", nvidia, "^more.*-v"},
        {kVaapi, Device, "No VA display found for device /dev/dri/renderD128.\n", nothing,
         "no render node.*/dev/dri", true},
        {kVaapi, Device, "", card(kVendorAmd, false), "permission .*128.*usermod -aG render"},
        {kVaapi, Device, kNoDriver, intel_on_arch, "no VA-API driver.*install intel-media-driver"},
        {kVaapi, Device, kNoDriver, nvidia_card, "NVIDIA.*nvenc", true},
        {kVaapi, Opening, kNoProfile, amd, "encode H.264.*--encoder x264"},
        {kVaapi, Opening, kNoCbr, intel, "no constant bitrate.*HuC"},
        {kSoftware, Settings, "", fedora, "built without.*dnf swap ffmpeg-free", false,
         AVERROR_ENCODER_NOT_FOUND},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.messages);
        const auto [reason, no_hardware] = diagnose({.choice = &row.choice,
                                                     .stage = row.stage,
                                                     .error = row.error,
                                                     .node = kNode,
                                                     .messages = row.messages,
                                                     .errors = row.messages},
                                                    row.facts);
        EXPECT_THAT(reason.cause + "; " + reason.remedy, testing::ContainsRegex(row.diagnosis));
        EXPECT_EQ(no_hardware, row.no_hardware);
    }
}

TEST(EncoderDiagnosis, ReportsTheMostInformativeOfSeveralCards) {
    using enum EncoderStage;
    const auto reported = [](EncoderStage usual, uint32_t usual_vendor, EncoderStage other) {
        const GraphicsFacts facts{.nodes = {{.path = kNode, .vendor = usual_vendor},
                                            {.path = kOtherNode, .vendor = kVendorAmd}}};
        const std::vector<EncoderFailure> attempts{{.stage = usual, .node = kNode},
                                                   {.stage = Device},
                                                   {.stage = other, .node = kOtherNode}};
        return most_informative(attempts, facts).node;
    };
    EXPECT_EQ(reported(Device, kVendorIntel, Device), kNode) << "the first of equal ones";
    EXPECT_EQ(reported(Device, kVendorNvidia, Device), kOtherNode);
    EXPECT_EQ(reported(Opening, kVendorIntel, Device), kNode);
}

TEST(GraphicsFacts, ReadsDevicesAndDistribution) {
    const test::TempDir pc;
    const std::filesystem::path root = pc.path();
    for (const char* node : {"dev/dri/renderD129", "dev/dri/renderD128", "dev/dri/card0"})
        pc.write(node, "");
    pc.write("sys/class/drm/renderD129/device/vendor", "0x8086\n");
    pc.write("etc/os-release", "NAME=\"Some\"\nID=some\nID_LIKE=\"ubuntu debian\"\n");
    const GraphicsFacts facts = read_graphics_facts(root);
    ASSERT_EQ(facts.nodes.size(), 2U);
    EXPECT_EQ(facts.nodes[0].path, root / "dev/dri/renderD128");
    EXPECT_EQ(facts.nodes[0].vendor, 0U);
    EXPECT_EQ(facts.nodes[1].vendor, kVendorIntel);
    EXPECT_EQ(facts.distribution, Distribution::Ubuntu);
}

}  // namespace
}  // namespace ox
