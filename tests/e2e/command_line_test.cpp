// The program's texts and exit statuses.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "e2e/player.h"
#include "support/sockets.h"

namespace ox::test {
namespace {

constexpr const char* kUsageStart = "orvex-agent — Linux merchant agent\nUsage: ";

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

/// Runs the program without desktop and sound server in an empty home folder. Fails the test when
/// it creates a file there.
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

TEST(CommandLine, EndsWithItsTextAndStatus) {
    const std::string usage = std::string(kUsageStart) + OX_AGENT_PATH;
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{"--version"}, 0, "0.4.448\n", ""},
        {{"--help"}, 0, usage, ""},
        // Arguments behind an error have no effect.
        {{"--bogus", "--version"}, 2, usage, "[ERROR] unknown argument '--bogus' (see --help)\n"},
        {{"--codec", "vp9", "--help"}, 2, usage, "[ERROR] unknown codec 'vp9'"},
        {{"--quiet", "--token-sha256"}, 2, usage, ""},
        {{"--saas-url", "ftp://x"}, 2, "", "[ERROR] --saas-url must start with ws:// or wss://"},
    };
    for (const auto& [arguments, status, out, err] : cases) {
        SCOPED_TRACE(arguments[0]);
        const auto outcome = run(arguments);
        EXPECT_EQ(outcome.status, status);
        EXPECT_EQ(out == usage ? outcome.out.substr(0, usage.size()) : outcome.out, out);
        EXPECT_NE(outcome.err.find(err), std::string::npos) << outcome.err;
        EXPECT_TRUE(status != 0 || outcome.err.empty()) << outcome.err;
    }
}

TEST(CommandLine, TheSelftestPassesWhateverTheOwnersSettings) {
    const auto outcome = run({"--selftest", "--port-base", "1"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(outcome.out.ends_with("63 passed, 0 failed\nSELFTEST PASS\n")) << outcome.out;
}

TEST(CommandLine, AnUnwritableLogDisablesTheScreenOnly) {
    Agent agent({.environment = {"OX_LOG_FILE=/nonexistent/folder/agent.log"}});
    const LogFile terminal(agent.folder_file("stderr.txt"));
    EXPECT_TRUE(terminal.wait_for("Log file /nonexistent/folder/agent.log cannot", kPatience));
    EXPECT_TRUE(terminal.wait_for("TcpControlServer: listening on port", kPatience));
    agent.expect_prompt_stop();
}

TEST(CommandLine, ABusyControlPortIsReportedOnceAndWaitedFor) {
    auto ports = std::make_shared<PortBlock>();
    UniqueFd occupier = bound_socket(SOCK_STREAM, ports->control());
    Agent agent({.ports = ports});
    const std::string bind_failed = "TcpControlServer: bind :" + std::to_string(ports->control()) +
                                    " failed: Address already in use";
    ASSERT_TRUE(agent.wait_for_log(bind_failed));
    EXPECT_TRUE(agent.screen().wait_for(std::to_string(ports->control()), kPatience))
        << "not on the screen";
    const auto cpu_before = agent.process().cpu_time();
    std::this_thread::sleep_for(
        std::chrono::seconds(1));  // four checks of the port, without an effect
    EXPECT_EQ(agent.log().count(bind_failed), 1U);
    EXPECT_LE(agent.process().cpu_time() - cpu_before, std::chrono::milliseconds(100))
        << "hot loop";
    occupier.reset();
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
    EXPECT_TRUE(agent.screen().wait_for("Resolved: Port ", kPatience));
    EXPECT_TRUE(Player(agent).receive_frames(1));
    EXPECT_EQ(agent.screen().count(std::to_string(ports->control())), 2U) << "reported twice";
}

TEST(CommandLine, AControlPortWithoutPermissionIsShownToTheOwner) {
    std::ifstream first_unprivileged("/proc/sys/net/ipv4/ip_unprivileged_port_start");
    int port = 0;
    if (first_unprivileged >> port; port < 1024) GTEST_SKIP() << "any user may open any port here";
    Agent::Setup setup{.arguments = {"--port-base", "0"}};
    if (::geteuid() == 0) setup.wrapper = {"setpriv", "--bounding-set=-net_bind_service"};
    const Agent agent(setup);
    ASSERT_TRUE(agent.wait_for_log("TcpControlServer: bind :3 failed: Permission denied"));
    EXPECT_TRUE(agent.screen().wait_for(
        "The system doesn't let the agent open port 3. Set PORT_BASE to 1024", kPatience));
}

}  // namespace
}  // namespace ox::test
