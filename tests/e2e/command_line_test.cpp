// The program as its owner starts it: texts and exit statuses.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "e2e/agent.h"

namespace ox::test {
namespace {

// The line of the key is from a derivation outside of the program (BLAKE2b of libsodium's
// crypto_kdf, here by Python's hashlib), not from its output.
constexpr const char* kExpectedOutput = R"(orvex-agent self-test
===========================
[1] packetize/encrypt/depacketize/decrypt roundtrip
  PASS  frame split into 4 data packets
  PASS  repair symbol per parity group
  PASS  repair symbols carry the grouped-scheme flag
  PASS  encryption key set
  PASS  ciphertext sizing
  PASS  ciphertext = plaintext + 16B tag
  PASS  every packet encrypted + authenticated + decrypted
  PASS  reassembled bitstream identical to source
  PASS  tampered tag rejected by Poly1305
  PASS  wrong key rejected
[2] libsodium KDF determinism
  PASS  same inputs → same subkey
  PASS  distinct subkey_ids → distinct keys
       video subkey (master=0..31): b09916556635ca25ea0a6f21d74743e288ae64c2e70052eb90b47fcdf60d97e8
[3] input packet wire roundtrip
  PASS  input encrypts to 28+16B
  PASS  input decrypts
  PASS  decoded fields survive roundtrip
  PASS  InputPacket is 28 bytes packed
[4] synthetic capture → H.264 encode → packetize
  PASS  synthetic capture init
  PASS  software H.264 encoder init (libx264)
       encoder: libx264
  PASS  10 synthetic frames encoded
  PASS  an IDR/keyframe was produced
  PASS  bitstream is Annex-B (start codes present)
  PASS  packetizer produced UDP datagrams
[5] P6 audio parity: nonce separation + 4:2 roundtrip
  PASS  OX_AUDIO_PARITY unset keeps parity off
  PASS  OX_AUDIO_PARITY=1 enables parity
  PASS  4:2 geometry and byte guards match the spec
  PASS  AUDIO_PARITY is 0x20 and never aliases FEC_PACKET
  PASS  data pad 0x0000, parity pad 0xA5C3 little-endian
  PASS  parity nonce pad 0xA5C3 separates repair 0 from data base
  PASS  repair 0 and repair 1 nonces differ
  PASS  parity test key set
  PASS  repair symbols encrypt/decrypt with the 0xA5C3 nonce pad
  PASS  4 frames form a block; repair ts is slot 3's capture ts
  PASS  4 frames encode into 2 repair payloads
  PASS  repair header fields are the spec's 16-byte layout
  PASS  2+2 block recovers
  PASS  recovered frames are byte-identical, orig_len honoured
  PASS  a frame over 1100 B completes the block but skips parity
  PASS  shard larger than 1146 B is refused
[6] P5 RFI: wire, host policy, backend gate
  PASS  OX_MEDIA_RFI unset keeps RFI off
  PASS  explicit on/off values parse
  PASS  RFI env switch parser is shared with P6 (off/on)
  PASS  P5 flag is 0x10, free and never an IDR
  PASS  P5 caps + 16-byte request fit the unchanged 28-byte input packet
  PASS  the RFI payload does not resize the input packet
  PASS  valid RFI request round-trips through InputPacket
  PASS  an old launcher's all-zero payload is still a legacy IDR request
  PASS  RFI is refused with a reason and falls back to IDR
  PASS  software encoder init for the RFI capability probe
  PASS  no backend in this build exposes reference invalidation
  PASS  invalidate_refs refuses instead of pretending
  PASS  the agent grants caps=0 while no backend can invalidate
[7] low-delay audio: RESTRICTED_LOWDELAY, CBR, 5 ms frames
  PASS  Opus encoder initialises at 48 kHz stereo 128 kbit/s
  PASS  frame is 5 ms = 240 samples per channel
  PASS  libopus reads back RESTRICTED_LOWDELAY
  PASS  libopus reads back CBR (VBR=0)
  PASS  lookahead is 2.5 ms (120 samples), not 6.5 ms
  PASS  codec delay 7.5 ms (was 16.5 ms with APPLICATION_AUDIO at 10 ms)
  PASS  reference Opus decoder created
  PASS  every packet is 80 bytes (CBR at 128 kbit/s, 5 ms)
  PASS  every packet is CELT (no SILK, so no in-band FEC to lose)
  PASS  TOC parser agrees with opus_packet_get_nb_samples (240)
  PASS  a decoder that does not know the frame size gets 240 samples
  PASS  PLC for a lost 5 ms frame produces exactly 5 ms
===========================
63 passed, 0 failed
SELFTEST PASS
)";

constexpr const char* kUsageStart = "orvex-agent — Linux merchant agent\nUsage: ";

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

std::string content_of(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

/// Runs the program on a machine without desktop and sound server, in an empty home folder, and
/// fails the test when a file remains there.
Outcome run(std::vector<std::string> arguments) {
    const TempDir results;
    const TempDir home;
    arguments.insert(arguments.begin(), OX_AGENT_PATH);
    const std::string folder = home.path().string();
    ChildProcess program(
        {.argv = arguments,
         .environment = {"HOME=" + folder, "TMPDIR=" + folder, "XDG_RUNTIME_DIR=" + folder,
                         "XDG_STATE_HOME=" + folder, "OX_AUDIO_PARITY=1", "OX_MEDIA_RFI=1",
                         "DISPLAY", "WAYLAND_DISPLAY", "PULSE_SERVER", "OX_LOG_FILE"},
         .stdout_path = results.file("out"),
         .stderr_path = results.file("err")});
    const int status = program.wait(kPatience).value_or(-1);
    EXPECT_TRUE(std::filesystem::is_empty(home.path()));
    return {status, content_of(results.file("out")), content_of(results.file("err"))};
}

TEST(CommandLine, HelpVersionAndSelfTestGoToStandardOutputWithStatusZero) {
    const auto version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "0.4.448\n");

    const auto help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with(std::string(kUsageStart) + OX_AGENT_PATH)) << help.out;
    std::istringstream options(
        "--saas-url --token --token-sha256 --display --capture --port-base --encoder --codec "
        "--bitrate --reconnect-grace --fps --width --height --audio --audio-parity "
        "--no-audio-parity --media-rfi --no-media-rfi --no-input --selftest -v --verbose -q "
        "--quiet -h --help");
    for (std::string option; options >> option;)
        EXPECT_NE(help.out.find(option), std::string::npos) << option;

    // What the owner has set up must not change a result.
    const auto selftest = run({"--selftest", "--port-base", "1"});
    EXPECT_EQ(selftest.status, 0);
    EXPECT_EQ(selftest.out, kExpectedOutput);
    EXPECT_EQ(selftest.err, "");
}

TEST(CommandLine, EveryErrorEndsWithStatusTwo) {
    const struct {
        std::vector<std::string> arguments;
        std::string error;  ///< logged; empty: the usage text alone
        bool usage = true;
    } cases[] = {
        // Left to right: what stands behind the error has no effect.
        {{"--bogus", "--version"}, "unknown argument '--bogus' (see --help)"},
        {{"--codec", "hevc", "--token-sha256"}, ""},
        {{"--saas-url", "ftp://x"},
         "--saas-url must start with ws:// or wss:// ('ftp://x')",
         false},
    };
    for (const auto& [arguments, error, usage] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto outcome = run(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out.starts_with(kUsageStart), usage) << outcome.out;
        EXPECT_EQ(outcome.err.find("[ERROR] " + error + "\n") == std::string::npos, error.empty())
            << outcome.err;
    }
}

TEST(CommandLine, ALogThatCannotBeWrittenCostsTheScreenAndNothingElse) {
    Agent agent({.environment = {"OX_LOG_FILE=/nonexistent/folder/agent.log"}});
    const LogFile terminal(agent.folder_file("stderr.txt"));
    EXPECT_TRUE(
        terminal.wait_for("Log file /nonexistent/folder/agent.log cannot be written - "
                          "logging to the terminal only",
                          kPatience));
    EXPECT_TRUE(terminal.wait_for("TcpControlServer: listening on port", kPatience));
    agent.expect_prompt_stop();
}

}  // namespace
}  // namespace ox::test
