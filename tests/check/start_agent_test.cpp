// start-agent --check, as an owner reads it.

#include <gtest/gtest.h>

#include <unistd.h>

#include "support/pulse_daemon.h"
#include "support/wayland_desktop.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

// Every machine has this encoder; not every one has /dev/uinput.
constexpr const char* kOptions = "--audio --no-input --encoder x264";
constexpr const char* kSilentOptions = "--no-input --encoder x264";

struct Outcome {
    int status = -1;
    std::string said;

    /// Expects this status and lines that begin so.
    void expect(int expected_status, const std::vector<std::string>& lines) const {
        EXPECT_EQ(status, expected_status) << said;
        for (const auto& line : lines)
            EXPECT_NE(("\n" + said).find("\n" + line), said.npos) << line << "\nis not in\n"
                                                                  << said;
    }
};

std::string settings(const std::string& agent_options) {
    return "TOKEN_SHA256=00\nPORT_BASE=46900\nAGENT_OPTIONS=\"" + agent_options + "\"\n";
}

/// Runs it with these AGENT_OPTIONS, on a PC without anything but what `environment` adds.
Outcome check(const std::string& agent_options, const std::vector<std::string>& environment = {},
              std::vector<std::string> arguments = {"--check"}) {
    const TempDir home;
    home.write(".config/orvex/start-agent.conf", settings(agent_options));
    const std::string folder = home.path().string();
    std::vector<std::string> variables{"HOME=" + folder,
                                       "XDG_RUNTIME_DIR=" + folder,
                                       "XDG_CONFIG_HOME=" + folder + "/.config",
                                       "DBUS_SESSION_BUS_ADDRESS=unix:path=" + folder + "/bus",
                                       "DISPLAY=:90999",
                                       "OX_LANG=en",
                                       std::string("ORVEX_AGENT=") + OX_AGENT_PATH,
                                       std::string("ORVEX_CHECK=") + OX_CHECK_PATH,
                                       "WAYLAND_DISPLAY",
                                       "XDG_SESSION_TYPE",
                                       "PULSE_SERVER"};
    variables.insert(variables.end(), environment.begin(), environment.end());
    arguments.insert(arguments.begin(), OX_START_AGENT);
    const std::string said = home.file("said");
    ChildProcess program({.argv = arguments, .environment = variables, .stderr_path = said});
    const int status = program.wait(std::chrono::seconds(60)).value_or(-1);
    return {status, read_file(said)};
}

TEST(StartAgent, SaysWhatAnEmptyPcLacksInBothLanguages) {
    check(kOptions).expect(
        1, {"  + The processor encodes (libx264).",
            "  ! No desktop lets the agent in, so players see a test picture: log in to the "
            "desktop; start-agent --check -v says more.",
            "  ! No sound server answers, so there is no sound.",
            "The agent can start, but a session could not be played now."});
    check(kOptions, {"OX_LANG=ru"})
        .expect(1, {"  + Кодирует процессор (libx264).",
                    "  ! Рабочий стол недоступен, игроки видят тестовую картинку: войдите "
                    "в\u00a0сеанс рабочего стола. Подробнее: start-agent --check -v",
                    "  ! Звуковой сервер не\u00a0отвечает, поэтому не\u00a0будет звука."});
}

TEST(StartAgent, WithADesktopAndASoundServerASessionCanBePlayed) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    PulseDaemon pulse;
    std::vector<std::string> environment = PulseDaemon::environment();
    environment.push_back("DISPLAY=" + server->display());
    check(kOptions, environment)
        .expect(0, {"  + The picture comes from the X11 desktop " + server->display() + " 640x480.",
                    "  + The sound comes from out.monitor.", "Ready to start."});
    // Sound is not worth a session.
    ASSERT_TRUE(pulse.pactl("set-sink-mute out 1"));
    check(kOptions, environment)
        .expect(0, {"  ! The output is muted, so players hear nothing: out.monitor."});
    check(kSilentOptions, environment)
        .expect(0, {"  ! Players hear nothing: the options have no --audio."});
}

TEST(StartAgent, AnEncoderThatDoesNotOpenEndsWithStatusOneAndItsReasons) {
    if (::access("/dev/dri/renderD128", F_OK) == 0) GTEST_SKIP() << "this machine has a card";
    const std::string options = "--no-input --capture synthetic --encoder vaapi";
    const auto terse = check(options);
    terse.expect(1, {"  ! No encoder works, not even the processor's: start-agent --check -v says "
                     "why.",
                     "  ! Players see a test picture, as the options ask for it (--capture "
                     "synthetic)."});
    EXPECT_EQ(terse.said.find("VideoEncoder"), std::string::npos) << terse.said;
    const auto reasons = check(options, {}, {"--check", "-v"});
    EXPECT_EQ(reasons.status, 1) << reasons.said;
    EXPECT_NE(reasons.said.find("VideoEncoder: h264_vaapi: "), std::string::npos) << reasons.said;
}

TEST(StartAgent, WhatKeepsTheAgentOrTheCheckFromStartingIsNoGoodNews) {
    check("--audio --bogus").expect(2, {"  x orvex-agent does not take these options: "});
    const auto no_settings = check(kOptions, {"XDG_CONFIG_HOME=/nonexistent"});
    EXPECT_EQ(no_settings.status, 2) << no_settings.said;
    EXPECT_EQ(no_settings.said.find("encodes"), std::string::npos) << "tried out all the same";
    check(kOptions, {"ORVEX_CHECK=/nonexistent/orvex-check"})
        .expect(1, {"  ! Nothing could be tried out: orvex-check does not run."});
}

class StartAgentOnWayland : public WaylandTest {};

TEST_F(StartAgentOnWayland, SaysWhetherTheDesktopWouldAsk) {
    std::vector<std::string> environment = desktop_->environment();
    const TempDir config;  // for token and settings
    environment.push_back("XDG_CONFIG_HOME=" + config.path().string());
    config.write("orvex/start-agent.conf", settings(kSilentOptions));
    const auto expect = [&](int status, const std::string& line) {
        check(kSilentOptions, environment).expect(status, {line});
    };
    expect(1, "  ! The Wayland desktop cannot share its screen");
    ASSERT_TRUE(desktop_->start_portal({"known-token=abc"}));
    expect(1, "  ! The Wayland desktop will ask at this PC");
    config.write("orvex/portal_restore_token", "abc");
    expect(0,
           "  + The picture comes from the Wayland desktop, which has your approval and asks "
           "nobody.");
}

}  // namespace
}  // namespace ox::test
