// The program as its owner starts it: texts and exit statuses.

#include <gtest/gtest.h>

#include "e2e/agent.h"

namespace ox::test {
namespace {

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

Outcome run(const std::vector<std::string>& arguments) {
    const TempDir folder;
    ChildProcess::Options options;
    options.argv = {OX_AGENT_PATH};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.environment = {"OX_LOG_FILE=" + folder.file("agent.log")};
    options.stdout_path = folder.file("out");
    options.stderr_path = folder.file("err");
    ChildProcess program(options);
    Outcome outcome;
    outcome.status = program.wait(kPatience).value_or(-1);
    for (const auto& line : LogFile(options.stdout_path).lines())
        outcome.out += line + "\n";
    for (const auto& line : LogFile(options.stderr_path).lines())
        outcome.err += line + "\n";
    return outcome;
}

constexpr const char* kUsageStart = "orvex-agent — Linux merchant agent\nUsage: ";

TEST(CommandLine, HelpAndVersionGoToStandardOutputWithStatusZero) {
    const auto version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, "0.4.448\n");

    const auto help = run({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.starts_with(std::string(kUsageStart) + OX_AGENT_PATH)) << help.out;
    const char* const options[] = {"--saas-url",
                                   "--token",
                                   "--token-sha256",
                                   "--display",
                                   "--capture",
                                   "--port-base",
                                   "--encoder",
                                   "--codec",
                                   "--bitrate",
                                   "--reconnect-grace",
                                   "--fps",
                                   "--width",
                                   "--height",
                                   "--audio",
                                   "--audio-parity",
                                   "--no-audio-parity",
                                   "--media-rfi",
                                   "--no-media-rfi",
                                   "--no-input",
                                   "--selftest",
                                   "-v",
                                   "--verbose",
                                   "-q",
                                   "--quiet",
                                   "-h",
                                   "--help"};
    for (const char* option : options)
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
    EXPECT_EQ(run({"-h"}).out, help.out);
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
