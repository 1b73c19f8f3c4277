// X11 desktops: from drawn to decoded pixels, and one that appears after the agent.

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
#include "support/xvfb.h"

namespace ox::test {
namespace {

struct BeforeTheDesktop : testing::Test {
    void SetUp() override {
        ChildProcess probe({.argv = isolated("true")});
        if (probe.wait(kPatience) != 0) GTEST_SKIP() << "no mount namespaces for this user";
    }
    /// A shell that sees the X servers of this folder only, and nothing of the user's own session.
    /// It becomes `command`, a line of shell, with the arguments that follow.
    [[nodiscard]] std::vector<std::string> isolated(const std::string& command) const {
        std::vector<std::string> argv{"unshare", "--mount"};
        if (::geteuid() != 0) argv.emplace_back("--map-root-user");
        const std::string mounts =
            "mkdir -p /tmp/.X11-unix && mount --bind \"$0\" /tmp/.X11-unix && "
            "{ [ ! -d /run/user ] || mount -t tmpfs none /run/user; } && exec ";
        argv.insert(argv.end(), {"sh", "-c", mounts + command, x_sockets_.path().string()});
        return argv;
    }

    TempDir x_sockets_;
};

/// An authority file with one cookie, for a display of this host under a former name, or for every
/// display of any host.
std::string cookie(const std::string& number = {}) {
    constexpr uint16_t kLocal = 256, kWild = 65535;
    return x_authority_entry(number.empty() ? kWild : kLocal, number.empty() ? "" : "renamed-since",
                             number, "MIT-MAGIC-COOKIE-1", std::string(16, '7'));
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
    const std::string authority = desktop.write("authority", cookie());
    const auto server =
        Xvfb::start({.arguments = {"-auth", authority}, .wrapper = isolated("\"$@\"")});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    std::ofstream(agent.folder_file(".Xauthority")) << cookie(server->display().substr(1));
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

constexpr int kWidth = 640;
constexpr int kHeight = 480;

TEST(DesktopStream, FollowsAScreenThatChangesItsSizeAndKeepsTheLastPictureOfAKilledServer) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    XPainter painter(server->display());
    Agent agent({.environment = {"DISPLAY=" + server->display()}, .capture = "x11"});
    // A sanitized test is slow to check every pixel.
    Player player(
        agent, {.width = kWidth, .height = kHeight, .fps = 60 / kSlowdown, .bitrate_kbps = 4000});
    int luma = 0;
    bool all_match = false;  // edges included
    player.on_picture = [&](const launcher::DecodedPicture& picture) {
        ASSERT_EQ(picture.width, kWidth);
        ASSERT_EQ(picture.height, kHeight);
        all_match = true;
        for (size_t y = 0; y < kHeight; ++y)
            for (const int value : picture.luma.bytes.subspan(y * picture.luma.stride, kWidth))
                all_match = all_match && std::abs(value - luma) <= 8;
    };
    ASSERT_TRUE(player.receive_frames(10));
    for (const auto& [width, height, rgb, expected] : {std::tuple{480U, 200U, 0xFF0000U, 82},
                                                       {333U, 351U, 0x00FF00U, 145},
                                                       {640U, 480U, 0x0000FFU, 41}}) {
        SCOPED_TRACE(std::to_string(width) + "x" + std::to_string(height));
        painter.resize_screen(width, height);
        painter.fill(0, 0, width, height, rgb);
        luma = expected;  // BT.601, limited range
        EXPECT_TRUE(player.receive_until([&] { return all_match; }));
        all_match = false;
    }
    EXPECT_EQ(player.pictures(), player.frames().size());
    EXPECT_TRUE(agent.wait_for_log("VideoEncoder: swscale BGRA 480x200 → yuv420p 640x480"));

    server->kill();
    ASSERT_TRUE(player.receive_frames(60));
    EXPECT_TRUE(agent.wait_for_log("X11Capture: the X server is gone"));
    EXPECT_TRUE(agent.wait_for_log("the source of the pictures is gone — input is with"));
    player.say("request_idr");
    const size_t before = player.frames().size();
    EXPECT_TRUE(player.receive_until([&] { return player.keyframes_since(before) > 0; }));
    EXPECT_TRUE(all_match) << "not the last picture, from a keyframe";
    player.say("end_session");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));
}

}  // namespace
}  // namespace ox::test
