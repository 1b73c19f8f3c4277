// System calls that fail once: the agent says so and goes on, or ends the session and serves the
// next one. It never ends, and never hangs, because of one.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "e2e/agent.h"

namespace ox::test {
namespace {

struct Fault {
    const char* call;
    int at;  ///< which call of the process fails; 1 is the first
    int error;
};

constexpr Fault kFaults[] = {
    {"socket", 1, EMFILE},
    {"socket", 2, EMFILE},
    {"socket", 3, EMFILE},
    {"socket", 4, EMFILE},
    {"bind", 1, EADDRINUSE},
    {"bind", 2, EADDRINUSE},
    {"bind", 3, EADDRINUSE},
    {"listen", 2, EADDRINUSE},
    {"accept4", 1, EMFILE},
    {"accept4", 1, ECONNABORTED},
    {"setsockopt", 2, EPERM},
    {"getpeername", 1, ENOTCONN},
    {"sendto", 5, ENOBUFS},
    {"send", 1, EPIPE},
    {"send", 2, EAGAIN},
    {"recv", 1, ECONNRESET},
    {"recv", 1, EINTR},
    {"recv", 2, ECONNRESET},
    {"recvfrom", 1, ECONNRESET},
    {"poll", 2, ENOMEM},
    {"poll", 5, ENOMEM},
    {"write", 6, ENOSPC},
    {"pthread_create", 1, EAGAIN},
    {"pthread_create", 2, EAGAIN},
    {"pthread_create", 3, EAGAIN},
    {"pthread_create", 4, EAGAIN},
    {"pthread_create", 5, EAGAIN},
};

/// One short session. The launcher's exit status; nothing when it hangs.
std::optional<int> stream_a_little(const Agent& agent) {
    ChildProcess launcher(
        {.argv = {OX_LAUNCHER_PATH, "--port-base", std::to_string(agent.port_base()),
                  "--local-port", std::to_string(agent.port_base()), "--width", "320", "--height",
                  "180", "--seconds", "0.2", "--media-timeout", "3", "--quiet"},
         .environment = {std::string("ORVEX_TOKEN=") + kToken}});
    return launcher.wait(kPatience * 2);
}

bool streams_within_patience(const Agent& agent) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    do {
        if (stream_a_little(agent) == 0) return true;
        ::usleep(100'000);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
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
        EXPECT_TRUE(stream_a_little(agent).has_value()) << "the launcher hangs";
        EXPECT_TRUE(streams_within_patience(agent));
        EXPECT_EQ(::access(report.c_str(), F_OK), 0) << "the call was never made";
        agent.expect_prompt_stop();
    }
}

}  // namespace
}  // namespace ox::test
