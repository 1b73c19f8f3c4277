// WebSocket frames, and what the agent tells about its PC.

#include <gtest/gtest.h>

#include "saas/system_info.h"
#include "saas/ws_frame.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace ox {
namespace {

std::span<const uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

std::string operator""_b(const char* text, size_t size) {
    return {text, size};
}

/// What a link does with `stream`, in pieces of `piece` bytes: a letter and the text for each frame
/// that needs a reaction.
std::string react(const std::string& stream, size_t piece) {
    WsFrameDecoder decoder;
    WsAssembler assembler("");
    std::string reactions;
    for (size_t at = 0; at < stream.size(); at += piece) {
        decoder.feed(bytes_of(std::string_view(stream).substr(at, piece)));
        for (WsFrame frame;;) {
            const auto result = decoder.next(frame);
            if (result == WsFrameDecoder::Result::TooLong) return reactions + "toolong";
            if (result == WsFrameDecoder::Result::NeedMore) break;
            std::string text;
            const auto step = assembler.take(frame, text);
            if (step == WsAssembler::Step::Message) reactions += "m(" + text + ")";
            if (step == WsAssembler::Step::Pong) reactions += "p(" + text + ")";
            if (step == WsAssembler::Step::Drop)
                return reactions + "drop" + std::to_string(assembler.close_code()) +
                       assembler.close_reason();
        }
    }
    return reactions + (decoder.mid_frame() ? "..." : "");
}

TEST(WsFrame, EveryFormInOnePieceAndByteByByte) {
    const test::LogCapture log;
    using Row = std::pair<std::string, const char*>;
    for (const auto& [stream, reactions] : {
             Row{"\x81\x02hi\x82\x01!", "m(hi)m(!)"},
             Row{"\x81\x7E\x00\x02hi"_b, "m(hi)"},              // longer form than needed
             Row{"\xF1\x02hi", "m(hi)"},                        // reserved bits
             Row{"\x81\x82\x01\x02\x03\x04\x69\x6B", "m(hi)"},  // masked server frame
             Row{"\x01\x01x\x00\x01y\x89\x01p\x80\x01z"_b, "p(p)m(xyz)"},  // ping amid fragments
             Row{"\x80\x01x\x81\x02ok", "m(ok)"},                          // orphan continuation
             Row{"\x01\x01x\x81\x02ok\x80\x01x", "m(ok)"},                 // stale fragment dropped
             Row{"\x83\x01x\x8B\x01x\x8F\x00\x8A\x01x\x81\x02ok"_b,
                 "m(ok)"},  // reserved opcodes, pong
             Row{"\x88\x0A\x0F\xA9replaced\x81\x02no", "drop4009replaced"},
             Row{"\x88\x00"_b, "drop0"},
             Row{"\x81\x7F\x00\x00\x00\x00\x00\x10\x00\x01"_b, "toolong"},
             Row{"\x81\x05hi", "..."},
         }) {
        EXPECT_EQ(react(stream, stream.size()), reactions);
        EXPECT_EQ(react(stream, 1), reactions);
    }
    const std::string ping = "\x89\x7E\x00\xC8"_b + std::string(200, 'x');
    EXPECT_EQ(react(ping, 7), "p(" + std::string(125, 'x') + ")");
    // The limit of one mebibyte also holds for a message in fragments.
    const std::string half(kMaxWsMessage / 2, 'h');
    const std::string length = "\x7F\x00\x00\x00\x00\x00\x08\x00\x00"_b;
    const std::string fragments = "\x01" + length + half + "\x00"_b + length + half;
    EXPECT_EQ(react(fragments + "\x80\x00"_b, 65'536), "m(" + half + half + ")");
    EXPECT_EQ(react(fragments + "\x80\x01x", 65'536), "drop0");
    EXPECT_GE(log.count("WARN", "SaasConnector: continuation with no active fragment"), 2);
    EXPECT_EQ(log.count("DEBUG", "SaasConnector: ignoring WS opcode 0xb"), 2);
    EXPECT_EQ(log.count("WARN", "SaasConnector: WS close frame code=4009 reason='replaced'"), 2);
}

TEST(SystemInfo, ReadsEverySourceAndPrefersTheNvidiaName) {
    const test::TempDir root;
    EXPECT_EQ(detect_system_info(root.path().string()).ram_mb, 0U);  // nothing can be read
    root.write("proc/cpuinfo",
               "processor\t: 0\nmodel name\t: Example CPU: 8 cores \nmodel name\t: other\n");
    root.write("proc/meminfo", "MemTotal:       16384000 kB\nMemAvailable:    1536 kB\n");
    root.write("etc/os-release", "NAME=x\nPRETTY_NAME=\"Example Linux 12\"\nPRETTY_NAME=later\n");
    // The first card with a driver counts, not an output of a card.
    root.write("proc/driver/nvidia/gpus/0/information", "IRQ: 7\n");  // names no model
    root.write("sys/class/drm/card0-HDMI-A-1/device/uevent", "DRIVER=wrong\n");
    root.write("sys/class/drm/card0/device/uevent", "PCI_ID=1\n");
    root.write("sys/class/drm/card1/device/uevent", "PCI_ID=1\nDRIVER=amdgpu\n");
    root.write("sys/class/drm/card2/device/uevent", "DRIVER=i915\n");
    const SystemInfo info = detect_system_info(root.path().string());
    EXPECT_EQ(info.cpu_model + ", " + info.os_version + ", " + info.gpu_model,
              "Example CPU: 8 cores, Example Linux 12, amdgpu GPU");
    EXPECT_EQ(info.ram_mb, 16'000U);
    EXPECT_DOUBLE_EQ(LoadProbe(root.path().string()).ram_free_mb(), 1.5);
    root.write("proc/driver/nvidia/gpus/1/information", "IRQ: 1\nModel: \t NV 9\n");
    EXPECT_EQ(detect_system_info(root.path().string()).gpu_model, "NV 9");
}

}  // namespace
}  // namespace ox
