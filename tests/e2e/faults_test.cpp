// System calls that fail once: the agent reports it and continues, or ends the session and serves
// the next one. It never exits or hangs.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "e2e/agent.h"
#include "support/eventually.h"

namespace ox::test {
namespace {

// A call, on a kind of descriptor or in a thread of a name ("": any), which of these calls fails (1
// is the first), its error, whether that ends the session, and what the log or the screen says.
using Fault = std::tuple<const char*, const char*, int, int, bool, const char*>;
constexpr Fault kFaults[] = {
    {"socket", "tcp", 1, EMFILE, true, "TcpControlServer: socket() failed: Too many open files"},
    {"socket", "udp", 2, EMFILE, false, "UdpSender: hole-punch probe received"},
    {"socket", "udp", 3, EMFILE, false, "InputReceiver: socket() failed: Too many open files"},
    {"listen", "tcp", 1, EADDRINUSE, true, "listen failed: Address already in use"},
    {"accept4", "tcp", 1, EMFILE, true, "TcpControlServer: accept failed: Too many open files"},
    {"getpeername", "tcp", 1, ENOTCONN, true, "Session: no UDP destination (no TCP peer?)"},
    {"sendto", "udp", 5, ENOBUFS, false, "UdpSender: send error: No buffer space available"},
    {"recv", "tcp", 1, ECONNRESET, true, "TcpControlServer: client closed during auth"},
    {"recv", "ox-control", 1, ECONNRESET, true, "Session: launcher reconnected"},
    {"recvfrom", "ox-probe", 1, ECONNRESET, false, "UdpSender: hole-punch probe received"},
    {"poll", "tcp", 1, ENOMEM, true, "Standalone session ended: handshake_failed:"},
    {"pthread_create", "", 1, EAGAIN, false, "Screen: no thread (Resource temporarily"},
    {"pthread_create", "", 2, EAGAIN, false, "Panic: cannot start the listener (Resource"},
    {"pthread_create", "", 5, EAGAIN, false, "InputReceiver: cannot start the receive thread:"},
};

/// One short session. The launcher's exit status.
int stream_briefly(const Agent& agent) {
    ChildProcess launcher(
        {.argv = {OX_LAUNCHER_PATH, "--port-base", std::to_string(agent.port_base()),
                  "--local-port", std::to_string(agent.port_base()), "--width", "320", "--height",
                  "180", "--seconds", "0.2", "--media-timeout", "1", "--quiet"},
         .environment = {std::string("ORVEX_TOKEN=") + kToken}});
    const auto status = launcher.wait(kPatience * 2);
    EXPECT_TRUE(status.has_value()) << "the launcher hangs";
    return status.value_or(-1);
}

TEST(Faults, ACallThatFailsOnceEndsAtMostTheSession) {
    for (const auto& [call, on, at, error, ends_session, reported] : kFaults) {
        SCOPED_TRACE(std::string(call) + " " + on + " " + std::to_string(at) + ": " +
                     std::strerror(error));
        const TempDir folder;
        const std::string report = folder.file("happened");
        Agent agent(
            {.environment = {"LD_PRELOAD=" OX_FAULT_SHIM, std::string("OX_FAULT=") + call,
                             std::string("OX_FAULT_ON=") + on, "OX_FAULT_AT=" + std::to_string(at),
                             "OX_FAULT_ERRNO=" + std::to_string(error),
                             "OX_FAULT_REPORT=" + report},
             .input = true});
        EXPECT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
        int sessions = 0;
        const auto streams_after_it = [&] {
            ++sessions;
            return stream_briefly(agent) == 0 && std::filesystem::exists(report);
        };
        EXPECT_TRUE(eventually(streams_after_it, kPatience * 2));
        EXPECT_TRUE(ends_session || sessions == 1) << sessions;
        const auto is_reported = [&] {
            return agent.log().count(reported) + agent.screen().count(reported);
        };
        EXPECT_TRUE(eventually(is_reported)) << "not reported: " << reported;
        agent.expect_prompt_stop();
    }
}

}  // namespace
}  // namespace ox::test
