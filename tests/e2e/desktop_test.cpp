// An agent that was started before the desktop.

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>

#include "e2e/player.h"
#include "support/environment.h"
#include "support/sockets.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

/// A shell that sees the X servers of this folder only, and nothing of the user's own session. It
/// becomes `command`, a line of shell, with the arguments that follow.
std::vector<std::string> isolated_shell(const std::string& x_sockets, const std::string& command) {
    std::vector<std::string> argv{"unshare", "--mount"};
    if (::geteuid() != 0) argv.emplace_back("--map-root-user");
    argv.insert(argv.end(), {"sh", "-c",
                             "mkdir -p /tmp/.X11-unix && mount --bind \"$0\" /tmp/.X11-unix && "
                             "{ [ ! -d /run/user ] || mount -t tmpfs none /run/user; } && exec " +
                                 command,
                             x_sockets});
    return argv;
}

struct BeforeTheDesktop : testing::Test {
    void SetUp() override {
        ChildProcess probe({.argv = isolated("true"), .environment = {}});
        if (probe.wait(kPatience) != 0) GTEST_SKIP() << "no mount namespaces for this user";
    }
    [[nodiscard]] std::vector<std::string> isolated(const std::string& command) const {
        return isolated_shell(x_sockets_.path().string(), command);
    }

    TempDir x_sockets_;
};

/// Writes an authority file with one cookie: for a display of this host under a former name, or for
/// every display of any host.
void write_cookie(const std::string& path, const std::string& number = {}) {
    const bool any = number.empty();
    const std::string host = any ? "" : "renamed-since";
    std::string bytes = any ? std::string("\xFF\xFF", 2) : std::string("\x01\x00", 2);
    for (const auto& text : {host, number, std::string("MIT-MAGIC-COOKIE-1"), std::string(16, '7')})
        bytes += std::string{'\0', static_cast<char>(text.size())} + text;
    std::ofstream(path, std::ios::binary) << bytes;
}

/// Streams until `done` holds for a picture, and ends the session.
bool shows(const Agent& agent, const std::function<bool(const launcher::DecodedPicture&)>& done) {
    Player player(agent);
    bool seen = false;
    player.on_picture = [&](const auto& picture) { seen = seen || done(picture); };
    const bool in_time = player.receive_until([&] { return seen; });
    player.say("end_session");
    return player.is_ended() && in_time;
}

TEST_F(BeforeTheDesktop, AnAgentStreamsATestPatternThenTheNewDesktop) {
    Agent agent({.capture = "auto",
                 .wrapper = isolated("env -i HOME=\"$HOME\" OX_LOG_FILE=\"$OX_LOG_FILE\" \"$@\"")});
    EXPECT_TRUE(shows(agent, [](const auto&) { return true; }));
    EXPECT_TRUE(agent.wait_for_log("Session: capture backend = synthetic"));
    const std::string missing = "Desktop: no display, no session bus yet";
    EXPECT_EQ(agent.log().count(missing), 1U);

    const TempDir desktop;
    const std::string authority = desktop.file("authority");
    write_cookie(authority);
    const auto server =
        Xvfb::start({.arguments = {"-auth", authority}, .wrapper = isolated("\"$@\"")});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    write_cookie(agent.folder_file(".Xauthority"), server->display().substr(1));
    const Environment as_its_user("XAUTHORITY", authority);
    XPainter(server->display()).fill(0, 0, 640, 480, 0x336699);

    EXPECT_TRUE(shows(agent, [](const auto& picture) {
        return std::ranges::all_of(picture.luma.bytes.first(picture.width),
                                   [](int luma) { return std::abs(luma - 95) <= 6; });
    }));
    EXPECT_TRUE(agent.wait_for_log("Session: desktop found: X11 " + server->display()));
    EXPECT_TRUE(agent.wait_for_log("Desktop: the display is there now (X11 "));
    EXPECT_EQ(agent.log().count(missing), 1U);
    EXPECT_TRUE(agent.screen().wait_for("Resolved: Screen capture failed", kPatience));
    agent.expect_prompt_stop();
}

TEST_F(BeforeTheDesktop, TheAgentStopsWhileAServerHangs) {
    const TempDir& folder = x_sockets_;
    const auto expect_stop_while_waiting = [&](const char* server, bool in_session) {
        SCOPED_TRACE(std::string(server) + (in_session ? ", in a session" : ""));
        const UniqueFd listener = listen_unix(folder.file(server));
        Agent agent({.arguments = {"--audio"},
                     .environment = {"DBUS_SESSION_BUS_ADDRESS=unix:path=" + folder.file("bus"),
                                     "PULSE_SERVER=unix:" + folder.file("sound"),
                                     in_session ? "DISPLAY=:7" : "DISPLAY"},
                     .capture = "auto",
                     .wrapper = isolated("\"$@\"")});
        std::optional<TcpClient> launcher;
        if (in_session) {
            ASSERT_TRUE(agent.wait_for_log("TcpControlServer: listening on port"));
            launcher.emplace(agent.control_port(), kPatience);
            launcher->send(auth_line());
            ASSERT_TRUE(agent.wait_for_log("Session start: "));
        }
        pollfd asked{.fd = listener.get(), .events = POLLIN, .revents = 0};
        ASSERT_EQ(::poll(&asked, 1, static_cast<int>(kPatience.count())), 1);
        agent.expect_prompt_stop();
        std::filesystem::remove(folder.file(server));
    };
    for (const char* server : {"bus", "X7", "sound"})
        expect_stop_while_waiting(server, false);
    for (const char* server : {"X7", "sound"})
        expect_stop_while_waiting(server, true);
}

}  // namespace
}  // namespace ox::test
