// Small parts of the program.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "app/host_checks.h"
#include "app/options.h"
#include "app/panic_listener.h"
#include "app/process_flags.h"
#include "app/selftest/checks.h"
#include "app/sleep_inhibitor.h"
#include "base/clock.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/log_capture.h"
#include "support/sockets.h"
#include "support/system_bus.h"
#include "support/temp_dir.h"
#include "tui/board/messages.h"

namespace ox {
namespace {

TEST(NvidiaDriverCheck, MissingOnlyWithAnAdapterAndWithoutTheDriver) {
    const test::TempDir folder;
    const std::filesystem::path& root = folder.path();
    const std::string gpu = "sys/bus/pci/devices/0000:01:00.0/";
    folder.write(gpu + "vendor", "0x10de\n");
    folder.write(gpu + "class", "0x040300\n");
    EXPECT_FALSE(nvidia_driver_missing(root)) << "its audio function is no display";
    for (const char* display : {"0x030000\n", "0x030200\n"}) {
        folder.write(gpu + "class", display);
        EXPECT_TRUE(nvidia_driver_missing(root)) << display;
    }
    std::filesystem::remove_all(root / "sys");
    EXPECT_FALSE(nvidia_driver_missing(root));
    folder.write("sys/class/drm/card0/device/vendor", "0x10de\n");
    EXPECT_TRUE(nvidia_driver_missing(root)) << "seen as a DRM card only";
    folder.write("proc/driver/nvidia/version", "NVRM\n");
    EXPECT_FALSE(nvidia_driver_missing(root));
}

TEST(PanicListener, ReplacesAStaleFileServesBesideSilentClientsAndKeepsTheNextAgentsFile) {
    const test::TempDir dir;
    const test::Environment runtime("XDG_RUNTIME_DIR", dir.path().string());
    std::ofstream(panic_socket_path()) << "left by a crash";
    panic_flag() = false;
    std::jthread listener = start_panic_listener();
    UniqueFd silent;  // must not block the other clients or the end
    EXPECT_TRUE(test::eventually([&] {
        silent = test::connect_unix(panic_socket_path());
        return static_cast<bool>(silent);
    }));
    const UniqueFd client = test::connect_unix(panic_socket_path());
    EXPECT_EQ(::write(client.get(), "stop", 4), 4);
    EXPECT_TRUE(test::eventually([] { return panic_flag().load(); }));
    const UniqueFd another = test::connect_unix(panic_socket_path());
    ::unlink(panic_socket_path().c_str());
    std::ofstream(panic_socket_path()) << "the next agent's";
    const auto before = SteadyClock::now();
    listener = {};
    EXPECT_LT(SteadyClock::now() - before, std::chrono::seconds(2));
    panic_flag() = false;
    EXPECT_EQ(::access(panic_socket_path().c_str(), F_OK), 0);
}

TEST(IdleWatch, NoticesMendedFaults) {
    const test::TempDir dir;
    const std::string node = dir.file("uinput");
    const test::PortBlock ports;
    const Options options;
    IdleWatch watch(options, node);
    const auto expect_alert = [&](const std::string& remedy) {
        watch.check();
        const tui::Snapshot board = tui::board().snapshot();
        constexpr auto kAlert = tui::Alert::UinputDenied;
        const bool raised = board.alerts.at(static_cast<size_t>(kAlert));
        const std::string text =
            tui::alert_text(kAlert, tui::Lang::English, tui::Host::Desktop, 0, board.alert_reason);
        EXPECT_NE((raised ? text : "none").find(remedy), std::string::npos) << text;
    };
    expect_alert("sudo modprobe");
    std::ofstream(node).put(' ');
    expect_alert("none");
    // A session's own failure stays.
    tui::board().input_device(EACCES);
    expect_alert("usermod");
    std::filesystem::remove(node);
    expect_alert("sudo modprobe");

    tui::board().control_port_closed(ports.control(), EADDRINUSE);
    UniqueFd occupier = test::bound_socket(SOCK_STREAM, ports.control());
    watch.check();
    EXPECT_EQ(tui::board().closed_port().error, EADDRINUSE);
    occupier.reset();
    watch.check();
    EXPECT_EQ(tui::board().closed_port().error, 0);
}

TEST(SelftestChecks, OneFailureFailsTheRunButDoesNotEndIt) {
    constexpr auto kGood = [] { selftest::check(true, "water is wet"); };
    constexpr auto kBad = [] { selftest::check(false, "the moon is cheese"); };
    constexpr std::array<selftest::Group, 3> kGroups{
        {{"[1] a", kGood}, {"[2] b", kBad}, {"[3] c", kGood}}};
    testing::internal::CaptureStdout();
    EXPECT_EQ(selftest::run_groups([] { return 0; }, kGroups), 1);
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_NE(output.find("[2] b\n  FAIL  the moon is cheese\n[3] c\n"), std::string::npos);
    EXPECT_TRUE(output.ends_with("2 passed, 1 failed\nSELFTEST FAIL\n"));
}

Options options_of(const std::string& line, const Options& defaults = {}) {
    std::istringstream words(line);
    const std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
    std::vector<const char*> pointers;
    for (const std::string& argument : arguments)
        pointers.push_back(argument.c_str());
    const auto parsed = parse_command_line(pointers, defaults);
    EXPECT_EQ(parsed.action, CommandLineAction::Run) << line;
    return parsed.options;
}

TEST(Options, EveryValueReachesItsField) {
    const Options o = options_of(
        "--saas-url ws://h --token t --token-sha256 ab --display :7 --capture x11 --port-base 5000 "
        "--encoder vaapi --codec h265 --bitrate 8000 --fps 30 --reconnect-grace 9 --width 1280 "
        "--height 720 --audio --audio-parity --media-rfi --no-input --selftest");
    EXPECT_EQ(o.saas_url + o.token + o.token_sha256 + o.display, "ws://htab:7");
    EXPECT_EQ((std::vector{o.port_base, o.bitrate_kbps, o.fps, o.width, o.height}),
              (std::vector{5000, 8000, 30, 1280, 720}));
    EXPECT_EQ(o.reconnect_grace_s, 9U);
    EXPECT_EQ(o.encoder, EncoderBackend::Vaapi);
    EXPECT_EQ(o.codec, VideoCodec::Hevc);
    EXPECT_EQ(o.capture, CaptureBackend::X11);
    EXPECT_TRUE(o.audio && o.audio_parity && o.media_rfi && o.selftest);
    EXPECT_FALSE(o.input);
}

TEST(Options, LaterArgumentsWinAndNumbersAreReadLeniently) {
    Options on;
    on.audio_parity = on.media_rfi = true;
    EXPECT_TRUE(options_of("", on).audio_parity && options_of("", on).media_rfi);
    const Options o = options_of(
        "--no-audio-parity --no-media-rfi --audio --no-audio --fps 30 --fps 144fps --port-base abc "
        "--reconnect-grace -5 --width -3",
        on);
    EXPECT_FALSE(o.audio_parity || o.media_rfi || o.audio);
    EXPECT_EQ((std::vector{o.fps, o.port_base, o.width}), (std::vector{144, 0, -3}));
    EXPECT_EQ(o.reconnect_grace_s, 0U);
}

using namespace std::chrono_literals;

/// A logind for one lock. Returns the requested kind, and a pipe's end that is closed with the
/// lock.
std::pair<std::string, UniqueFd> serve_one_lock(BusConnection& bus) {
    std::string requested;
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd lock(ends[1]);
    bus.read_until(SteadyClock::now() + 10s, [&](DBusMessage& call) {
        std::array<const char*, 4> words{};  // what, who, why, mode
        if (dbus_message_is_method_call(&call, "org.freedesktop.login1.Manager", "Inhibit") ==
                FALSE ||
            dbus_message_get_args(&call, nullptr, DBUS_TYPE_STRING, &words[0], DBUS_TYPE_STRING,
                                  &words[1], DBUS_TYPE_STRING, &words[2], DBUS_TYPE_STRING,
                                  &words[3], DBUS_TYPE_INVALID) == FALSE) {
            return false;
        }
        requested = std::string(words[0]) + " " + words[1] + " " + words[3];
        const DBusMessagePtr reply(dbus_message_new_method_return(&call));
        dbus_message_append_args(reply.get(), DBUS_TYPE_UNIX_FD, &ends[1], DBUS_TYPE_INVALID);
        bus.post(*reply);
        return true;
    });
    return {requested, UniqueFd(ends[0])};
}

bool is_held(const UniqueFd& watched) {
    pollfd entry{.fd = watched.get(), .events = POLLIN, .revents = 0};
    return ::poll(&entry, 1, 0) == 0;
}

TEST(SleepInhibitor, HoldsTheLockWhileItExists) {
    test::SystemBus bus("org.freedesktop.login1");
    auto served = std::async(std::launch::async, [&] { return serve_one_lock(bus.service); });
    const test::LogCapture log;
    std::optional<SleepInhibitor> inhibitor(std::in_place);
    const auto [requested, watched] = served.get();
    EXPECT_EQ(requested, "sleep:idle orvex-agent block");
    EXPECT_TRUE(test::eventually([&] {
        return log.count("INFO", "Session: the PC stays awake until the session ends") == 1;
    })) << log.text();
    EXPECT_TRUE(is_held(watched));
    inhibitor.reset();
    // The bus may close its own copy a little later.
    EXPECT_TRUE(test::eventually([&] { return !is_held(watched); }));
}

TEST(SleepInhibitor, ADeadBusDoesNotDelayTheDestructor) {
    const test::DeafBus bus;
    const auto before = SteadyClock::now();
    { const SleepInhibitor inhibitor; }
    EXPECT_LT(SteadyClock::now() - before, 1s);
}

}  // namespace
}  // namespace ox
