#include "e2e/agent.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>

namespace ox::test {
namespace {

ChildProcess::Options command(const Agent::Setup& setup, const TempDir& folder) {
    ChildProcess::Options options;
    options.argv = setup.wrapper;
    options.argv.insert(options.argv.end(),
                        {OX_AGENT_PATH, "-v", "--token-sha256", kTokenSha256, "--port-base",
                         std::to_string(setup.ports->base()), "--capture", setup.capture});
    if (!setup.input) options.argv.emplace_back("--no-input");
    options.argv.insert(options.argv.end(), setup.arguments.begin(), setup.arguments.end());
    options.environment = {
        "OX_LOG_FILE=" + folder.file("agent.log"),
        "OX_TUI",
        "TERM=xterm",
        "OX_LANG=en",
        "HOME=" + folder.path().string(),
        "XDG_RUNTIME_DIR=" + folder.path().string(),
        "XDG_STATE_HOME",
        "XDG_SESSION_TYPE",
        "WAYLAND_DISPLAY",
        "DISPLAY",
        "OX_CONSOLE_LOG",
        "OX_DEBUG_DROP_PCT",
    };
    options.environment.insert(options.environment.end(), setup.environment.begin(),
                               setup.environment.end());
    options.stdout_path = setup.terminal.empty() ? folder.file("screen.txt") : setup.terminal;
    options.stderr_path = folder.file("stderr.txt");
    return options;
}

}  // namespace

std::string auth_line(const std::string& more, const std::string& token) {
    return R"({"type":"auth","token":")" + token + "\"" + more + "}\n";
}

Agent::Agent() : Agent(Setup{}) {}

Agent::Agent(const Setup& setup)
    : ports_(setup.ports),
      log_(folder_.file("agent.log")),
      screen_(folder_.file("screen.txt")),
      process_(command(setup, folder_)) {}

Agent::~Agent() {
    if (process_.running()) expect_prompt_stop();
    if (!testing::Test::HasFailure()) return;
    for (const char* name : {"stderr.txt", "agent.log"})
        ADD_FAILURE() << name << ":\n" << std::ifstream(folder_file(name)).rdbuf();
}

bool Agent::wait_for_log(const std::string& text, size_t times) const {
    if (log_.wait_for(text, kPatience, times)) return true;
    ADD_FAILURE() << "not logged " << times << " time(s): " << text;
    return false;
}

void Agent::expect_prompt_stop() {
    process_.signal(SIGTERM);
    const auto status = process_.wait(kStopLimit);
    ASSERT_TRUE(status.has_value())
        << "still running " << kStopLimit.count() << " ms after SIGTERM";
    EXPECT_EQ(*status, 0);
}

}  // namespace ox::test
