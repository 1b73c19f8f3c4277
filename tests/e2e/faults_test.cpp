// System calls that fail once: the agent says so and goes on, or ends the session and serves the
// next one. It never ends, and never hangs, because of one.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "e2e/agent.h"
#include "support/eventually.h"

namespace ox::test {
namespace {

struct Fault {
    const char* call;
    int at;  ///< which call of the process fails; 1 is the first
    int error;
};

constexpr Fault kFaults[] = {
    {"socket", 3, EMFILE},
    {"socket", 4, EMFILE},
    {"listen", 2, EADDRINUSE},
    {"accept4", 1, EMFILE},
    {"getpeername", 1, ENOTCONN},
    {"sendto", 5, ENOBUFS},
    {"send", 1, EPIPE},
    {"recv", 1, ECONNRESET},
    {"recv", 2, ECONNRESET},
    {"recvfrom", 1, ECONNRESET},
    {"poll", 5, ENOMEM},
    {"write", 6, ENOSPC},
    {"pthread_create", 1, EAGAIN},
    {"pthread_create", 2, EAGAIN},
    {"pthread_create", 5, EAGAIN},
};

/// One short session. The launcher's exit status.
int stream_a_little(const Agent& agent) {
    ChildProcess launcher(
        {.argv = {OX_LAUNCHER_PATH, "--port-base", std::to_string(agent.port_base()),
                  "--local-port", std::to_string(agent.port_base()), "--width", "320", "--height",
                  "180", "--seconds", "0.2", "--media-timeout", "1", "--quiet"},
         .environment = {std::string("ORVEX_TOKEN=") + kToken}});
    const auto status = launcher.wait(kPatience * 2);
    EXPECT_TRUE(status.has_value()) << "the launcher hangs";
    return status.value_or(-1);
}

TEST(Faults, ACallThatFailsOnceCostsAtMostTheSession) {
    for (const auto& [call, at, error] : kFaults) {
        SCOPED_TRACE(std::string(call) + " " + std::to_string(at) + ": " + std::strerror(error));
        const TempDir folder;
        const std::string report = folder.file("happened");
        Agent agent({.environment = {"LD_PRELOAD=" OX_FAULT_SHIM, std::string("OX_FAULT=") + call,
                                     "OX_FAULT_AT=" + std::to_string(at),
                                     "OX_FAULT_ERRNO=" + std::to_string(error),
                                     "OX_FAULT_REPORT=" + report},
                     .input = true});
        EXPECT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
        const auto streams_after_it = [&] {
            const bool happened = std::filesystem::exists(report);
            return stream_a_little(agent) == 0 && happened;
        };
        EXPECT_TRUE(eventually(streams_after_it, kPatience * 2));
        agent.expect_prompt_stop();
    }
}

}  // namespace
}  // namespace ox::test
