// The program as its owner starts it: texts and exit statuses.

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "e2e/agent.h"

namespace ox::test {
namespace {

constexpr const char* kUsageStart = "orvex-agent — Linux merchant agent\nUsage: ";

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

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
    return {status, read_file(results.file("out")), read_file(results.file("err"))};
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
    EXPECT_EQ(selftest.err, "");
    EXPECT_EQ(selftest.out, read_file(OX_SELFTEST_OUTPUT)) << "not the texts that owners know";
}

TEST(CommandLine, EveryErrorEndsWithStatusTwo) {
    const struct {
        std::vector<std::string> arguments;
        const char* error;
        bool usage;
    } cases[] = {
        // Left to right: what stands behind the error has no effect.
        {{"--bogus", "--version"}, "[ERROR] unknown argument '--bogus' (see --help)\n", true},
        {{"--codec", "hevc", "--token-sha256"}, "", true},
        {{"--saas-url", "ftp://x"}, "[ERROR] --saas-url must start with ws:// or wss://", false},
    };
    for (const auto& [arguments, error, usage] : cases) {
        SCOPED_TRACE(testing::PrintToString(arguments));
        const auto outcome = run(arguments);
        EXPECT_EQ(outcome.status, 2);
        EXPECT_EQ(outcome.out.starts_with(kUsageStart), usage) << outcome.out;
        EXPECT_NE(outcome.err.find(error), std::string::npos) << outcome.err;
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
