// start-agent --check, as an owner reads it.

#include <gtest/gtest.h>

#include <unistd.h>

#include "support/pulse_daemon.h"
#include "support/wayland_test.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

constexpr std::chrono::seconds kPatience{60};
// Every machine has this encoder; not every one has /dev/uinput.
constexpr const char* kOptions = "--audio --no-input --encoder x264";

struct Outcome {
    int status = -1;
    std::string said;

    [[nodiscard]] bool has(const std::string& line) const {
        return ("\n" + said).find("\n" + line + "\n") != std::string::npos;
    }
};

/// Runs it with these AGENT_OPTIONS, on a PC without anything but what `environment` adds.
Outcome check(const std::string& agent_options, const std::vector<std::string>& environment = {},
              std::vector<std::string> arguments = {"--check"}) {
    const TempDir home;
    home.write(".config/orvex/start-agent.conf",
               "TOKEN_SHA256=00\nPORT_BASE=46900\nAGENT_OPTIONS=\"" + agent_options + "\"\n");
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
    ChildProcess program({.argv = std::move(arguments),
                          .environment = std::move(variables),
                          .stderr_path = home.file("said")});
    const int status = program.wait(kPatience).value_or(-1);
    return {status, read_file(home.file("said"))};
}

TEST(StartAgent, SaysWhatAnEmptyPcLacksInBothLanguages) {
    const auto english = check(kOptions);
    EXPECT_EQ(english.status, 1) << english.said;
    EXPECT_TRUE(english.has("  + The processor encodes (libx264).")) << english.said;
    EXPECT_TRUE(
        english.has("  ! No desktop lets the agent in, so players see a test picture: log in to "
                    "the desktop; start-agent --check -v says more."))
        << english.said;
    EXPECT_TRUE(english.has("  ! No sound server answers, so there is no sound.")) << english.said;
    EXPECT_TRUE(english.has("The agent can start, but a session could not be played now."))
        << english.said;

    const auto russian = check(kOptions, {"OX_LANG=ru"});
    EXPECT_EQ(russian.status, 1) << russian.said;
    EXPECT_TRUE(russian.has("  + Кодирует процессор (libx264).")) << russian.said;
    EXPECT_TRUE(
        russian.has("  ! Рабочий стол недоступен, игроки видят тестовую картинку: войдите "
                    "в\u00a0сеанс рабочего стола. Подробнее: start-agent --check -v"))
        << russian.said;
    EXPECT_TRUE(russian.has("  ! Звуковой сервер не\u00a0отвечает, поэтому не\u00a0будет звука."))
        << russian.said;
}

TEST(StartAgent, WithADesktopAndASoundServerASessionCanBePlayed) {
    const auto server = Xvfb::start({});
    if (!server) GTEST_SKIP() << "no Xvfb on this machine";
    PulseDaemon pulse;
    std::vector<std::string> environment = PulseDaemon::environment();
    environment.push_back("DISPLAY=" + server->display());
    const auto fine = check(kOptions, environment);
    EXPECT_EQ(fine.status, 0) << fine.said;
    EXPECT_TRUE(
        fine.has("  + The picture comes from the X11 desktop " + server->display() + " 640x480."))
        << fine.said;
    EXPECT_TRUE(fine.has("  + The sound comes from out.monitor.")) << fine.said;
    EXPECT_TRUE(fine.has("Ready to start.")) << fine.said;

    ASSERT_TRUE(pulse.pactl("set-sink-mute out 1"));
    const auto muted = check(kOptions, environment);
    EXPECT_EQ(muted.status, 0) << "sound is not worth a session";
    EXPECT_TRUE(muted.has("  ! The output is muted, so players hear nothing: out.monitor."))
        << muted.said;

    const auto silent = check("--no-input --encoder x264", environment);
    EXPECT_EQ(silent.status, 0) << silent.said;
    EXPECT_TRUE(silent.has("  ! Players hear nothing: the options have no --audio."))
        << silent.said;
}

TEST(StartAgent, AnEncoderThatDoesNotOpenEndsWithStatusOneAndItsReasons) {
    if (::access("/dev/dri/renderD128", F_OK) == 0) GTEST_SKIP() << "this machine has a card";
    const std::string options = "--no-input --capture synthetic --encoder vaapi";
    const auto short_words = check(options);
    EXPECT_EQ(short_words.status, 1) << short_words.said;
    EXPECT_TRUE(
        short_words.has("  ! No encoder works, not even the processor's: start-agent "
                        "--check -v says why."))
        << short_words.said;
    EXPECT_EQ(short_words.said.find("VideoEncoder"), std::string::npos) << short_words.said;
    EXPECT_TRUE(
        short_words.has("  ! Players see a test picture, as the options ask for it "
                        "(--capture synthetic)."))
        << short_words.said;

    const auto reasons = check(options, {}, {"--check", "-v"});
    EXPECT_EQ(reasons.status, 1) << reasons.said;
    EXPECT_NE(reasons.said.find("VideoEncoder: h264_vaapi: "), std::string::npos) << reasons.said;
}

TEST(StartAgent, WhatKeepsTheAgentFromStartingEndsWithStatusTwo) {
    const auto unknown = check("--audio --bogus");
    EXPECT_EQ(unknown.status, 2) << unknown.said;
    EXPECT_NE(unknown.said.find("  x orvex-agent does not take these options: "), std::string::npos)
        << unknown.said;

    const auto no_settings = check(kOptions, {"XDG_CONFIG_HOME=/nonexistent"});
    EXPECT_EQ(no_settings.status, 2) << no_settings.said;
    EXPECT_EQ(no_settings.said.find("encodes"), std::string::npos) << "tried out all the same";
}

TEST(StartAgent, ACheckThatCannotBeMadeIsNoGoodNews) {
    const auto outcome = check(kOptions, {"ORVEX_CHECK=/nonexistent/orvex-check"});
    EXPECT_EQ(outcome.status, 1) << outcome.said;
    EXPECT_TRUE(outcome.has("  ! Nothing could be tried out: orvex-check does not run."))
        << outcome.said;
}

class StartAgentOnWayland : public WaylandTest {};

TEST_F(StartAgentOnWayland, SaysWhetherTheDesktopWouldAsk) {
    const std::string options = "--no-input --encoder x264";
    std::vector<std::string> environment = desktop_->environment();
    const TempDir config;  // for token and settings
    environment.push_back("XDG_CONFIG_HOME=" + config.path().string());
    config.write("orvex/start-agent.conf",
                 "TOKEN_SHA256=00\nPORT_BASE=46900\nAGENT_OPTIONS=\"" + options + "\"\n");
    const auto on_desktop = [&] { return check(options, environment); };
    const auto missing = on_desktop();
    EXPECT_EQ(missing.status, 1) << missing.said;
    EXPECT_NE(missing.said.find("  ! The Wayland desktop cannot share its screen"),
              std::string::npos)
        << missing.said;

    ASSERT_TRUE(desktop_->start_portal({"known-token=abc"}));
    const auto asks = on_desktop();
    EXPECT_EQ(asks.status, 1) << asks.said;
    EXPECT_NE(asks.said.find("  ! The Wayland desktop will ask at this PC"), std::string::npos)
        << asks.said;

    config.write("orvex/portal_restore_token", "abc");
    const auto knows = on_desktop();
    EXPECT_EQ(knows.status, 0) << knows.said;
    EXPECT_TRUE(
        knows.has("  + The picture comes from the Wayland desktop, which has your approval "
                  "and asks nobody."))
        << knows.said;
    EXPECT_EQ(desktop_->portal_report().lines(), std::vector<std::string>{"ready"})
        << "the portal was asked for more than its properties";
}

}  // namespace
}  // namespace ox::test
