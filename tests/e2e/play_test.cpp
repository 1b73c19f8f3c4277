// orvex-play's window on one X server, the agent on another.

#include <gtest/gtest.h>
#include <linux/input.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "e2e/agent.h"
#include "e2e/relay.h"
#include "launcher/tone_meter.h"
#include "support/eventually.h"
#include "support/pulse_daemon.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 480;
constexpr uint32_t kBlock = 16;

const std::string kFindWindow = "search --sync --onlyvisible --name orvex-play ";

std::string local(uint16_t port_base) {
    return "127.0.0.1:" + std::to_string(port_base);
}

/// The real program.
struct Play {
    Play(const std::string& host, const std::string& display,
         const std::vector<std::string>& more = {},
         const std::vector<std::string>& environment = {}) {
        std::vector<std::string> argv = {OX_PLAY_PATH, host, "--size", "640x480"};
        argv.insert(argv.end(), more.begin(), more.end());
        std::vector<std::string> all = {
            display.empty() ? "DISPLAY" : "DISPLAY=" + display, "WAYLAND_DISPLAY",
            "SDL_VIDEODRIVER",
            // Tells whose a leak is when SDL has unloaded the library.
            "ASAN_OPTIONS=fast_unwind_on_malloc=0", "LSAN_OPTIONS=print_suppressions=0",
            std::string("ORVEX_TOKEN=") + kToken, "XDG_RUNTIME_DIR=" + folder.path().string()};
        all.insert(all.end(), environment.begin(), environment.end());
        process.emplace(ChildProcess::Options{
            .argv = argv, .environment = all, .stderr_path = folder.file("stderr.txt")});
    }
    ~Play() {
        if (!testing::Test::HasFailure()) return;
        const auto status = process->wait(0ms);
        ADD_FAILURE() << "orvex-play: " << (status ? std::to_string(*status) : "runs") << "\n"
                      << std::ifstream(folder.file("stderr.txt")).rdbuf();
    }
    /// Expects its end with this status and one line that contains `error`.
    void expect_end(int status, const std::string& error) {
        EXPECT_EQ(process->wait(kPatience + 15s), status) << error;
        const auto lines = LogFile(folder.file("stderr.txt")).lines();
        ASSERT_EQ(lines.size(), 1U) << error;
        EXPECT_EQ(lines[0].find("orvex-play: "), 0U) << lines[0];
        EXPECT_NE(lines[0].find(error), std::string::npos) << lines[0];
    }

    TempDir folder;
    std::optional<ChildProcess> process;
};

/// Blocks of colours, none of them as bright as the player's texts or as dark as its bars.
uint32_t colour_at(uint32_t picture, uint32_t x, uint32_t y) {
    const uint32_t block = (picture * 64 + y / kBlock) * 64 + x / kBlock;
    return 0x303030U + (block * 2654435761U >> 8 & 0x7F7F7FU);
}

int distance(uint32_t one, uint32_t other, int channel) {
    return std::abs(static_cast<int>(one >> 8 * channel & 0xFF) -
                    static_cast<int>(other >> 8 * channel & 0xFF));
}

class PlayedDesktop : public testing::Test {
  protected:
    void SetUp() override {
        if (!source || !target) GTEST_SKIP() << "no Xvfb on this machine";
        if (std::system("command -v xdotool >/dev/null") != 0)
            GTEST_SKIP() << "no xdotool";  // NOLINT
        screen.emplace(target->display());
        desktop.emplace(source->display());
    }
    void paint(uint32_t number) {
        picture = number;
        for (uint32_t y = 0; y < kHeight; y += kBlock)
            for (uint32_t x = 0; x < kWidth; x += kBlock)
                desktop->fill(static_cast<int>(x), static_cast<int>(y), kBlock, kBlock,
                              colour_at(picture, x, y));
    }
    void use(const std::string& actions) const {
        const std::string command =
            "DISPLAY=" + target->display() + " timeout 20 xdotool " + actions;
        EXPECT_EQ(std::system((command + " >/dev/null 2>&1").c_str()), 0) << actions;  // NOLINT
    }

    /// Whether the window shows the picture in its middle, or beside that if `moved`, with black
    /// beside it. The largest error of the codec was 5, and 20 when scaled, where the blocks' edges
    /// do not count; the mean was below 1.
    bool is_shown(bool moved = false, int red = 2) {
        const auto [width, height] = size;
        const auto pixels = screen->read(width, height);
        const double scale = std::min(1.0 * width / kWidth, 1.0 * height / kHeight);
        const double left = std::floor((width - kWidth * scale) / 2);
        const double top = std::floor((height - kHeight * scale) / 2);
        const double margin = scale == 1 ? 0 : 2 / scale;
        const uint32_t shift = !moved ? 0 : scale == 1 ? 1 : kBlock / 2;
        int largest = 0, brightest_bar = 0, count = 0;
        double sum = 0;
        for (uint32_t i = 0; i < pixels.size(); ++i) {
            const double x = (i % width - left + 0.5) / scale;
            const double y = (i / width - top + 0.5) / scale;
            if (x < -margin || y < -margin || x > kWidth + margin || y > kHeight + margin)
                brightest_bar = std::max(brightest_bar, distance(pixels[i], 0, 1));
            const auto counts = [&](double at, uint32_t end) {
                const double inside = std::fmod(at, kBlock);
                return at >= 0 && at < end && inside >= margin && inside <= kBlock - margin;
            };
            if (!counts(x, kWidth) || !counts(y, kHeight)) continue;
            const uint32_t wanted =
                colour_at(picture, static_cast<uint32_t>(x) + shift, static_cast<uint32_t>(y));
            for (const int channel : {0, 1, 2}) {
                const int error = distance(pixels[i] >> 8 * (channel == 2 ? red : channel),
                                           wanted >> 8 * channel, 0);
                largest = std::max(largest, error);
                sum += error;
                ++count;
            }
        }
        seen = std::to_string(width) + "x" + std::to_string(height) + ": mean " +
               std::to_string(sum / count) + ", largest " + std::to_string(largest) + ", bars " +
               std::to_string(brightest_bar);
        return sum < 2 * count && largest < (scale == 1 ? 16 : 40) && brightest_bar < 8;
    }
    void expect_shown(const std::string& when) {
        EXPECT_TRUE(eventually([this] { return is_shown(); }, kPatience)) << when << seen;
        EXPECT_FALSE(is_shown(true)) << when << " in the wrong place, " << seen;
        EXPECT_FALSE(is_shown(false, 0)) << when << " in the wrong colours, " << seen;
    }
    /// Waits for a text with another number of white pixels, which it returns.
    ptrdiff_t expect_message(ptrdiff_t other_than = 0) {
        ptrdiff_t white = 0;
        const auto comes = [&] {
            white = std::ranges::count(screen->read(kWidth, kHeight), 0xFFFFFFU);
            return white > 40 && white != other_than;
        };
        EXPECT_TRUE(eventually(comes, kPatience)) << "no message";
        return white;
    }

    std::unique_ptr<Xvfb> source = Xvfb::start({});
    std::unique_ptr<Xvfb> target = Xvfb::start({});
    std::optional<XPainter> desktop, screen;
    uint32_t picture = 0;
    std::pair<uint32_t, uint32_t> size{kWidth, kHeight};  ///< of the window, at the corner
    std::string seen;
};

TEST_F(PlayedDesktop, IsShownPixelForPixelOrAMessageSaysWhyNot) {
    paint(1);
    Agent agent({.environment = {"DISPLAY=" + source->display()}, .capture = "x11"});
    Relay relay(agent.port_base());
    relay.cut = true;
    Play play(local(relay.port_base()), target->display(), {"--bitrate", "8000"});
    expect_message();
    relay.cut = false;
    expect_shown("unscaled");
    for (const auto& [width, height] : {std::pair{640U, 360U}, {480U, 480U}, {kWidth, kHeight}}) {
        use(kFindWindow + "windowmove 0 0 windowsize " + std::to_string(width) + " " +
            std::to_string(height));
        size = {width, height};
        expect_shown("resized");
    }

    relay.loss_pct = 5;
    for (uint32_t change = 0; change < 40 || relay.lost < 30; ++change) {
        const uint32_t colour = 0x404040U + change % 8 * 0x001000U;
        desktop->fill(0, 0, kBlock, kBlock, colour);
        const auto comes = [&] { return distance(screen->read(8, 8)[27], colour, 1) < 8; };
        ASSERT_TRUE(eventually(comes, 5s * kSlowdown)) << "frozen after " << relay.lost;
    }
    paint(2);
    expect_shown("with losses");
    relay.loss_pct = 100;
    expect_message();
    relay.loss_pct = 0;
    expect_shown("after a silence");

    relay.cut = true;
    expect_message(expect_message());  // the seconds left
    paint(3);
    relay.cut = false;
    expect_shown("after a cut");
    agent.expect_prompt_stop();
    expect_message();
    play.expect_end(7, "the PC ended the session");
}

/// What changed at a stand-in for /dev/uinput: "30:1 " for a key, "r3,-5 " and "w1 ".
[[maybe_unused]] std::string events_of(const std::string& file) {
    std::ifstream device(file, std::ios::binary);
    std::string events;
    std::map<int, int> keys;
    int dx = 0, dy = 0;
    input_event event{};
    while (device.read(static_cast<char*>(static_cast<void*>(&event)), sizeof event)) {
        if (event.type == EV_REL && event.code == REL_X) dx += event.value;
        if (event.type == EV_REL && event.code == REL_Y) dy += event.value;
        if (event.type == EV_KEY && std::exchange(keys[event.code], event.value) == event.value)
            continue;
        if (event.type != EV_KEY && (event.type != EV_REL || event.code != REL_WHEEL)) continue;
        if (dx != 0 || dy != 0) events += "r" + std::to_string(dx) + "," + std::to_string(dy) + " ";
        dx = dy = 0;
        events += event.type == EV_REL ? "w" : std::to_string(event.code) + ":";
        events += std::to_string(event.value) + " ";
    }
    return events;
}

TEST_F(PlayedDesktop, GetsKeysMotionsAndAllReleases) {
#ifndef OX_FAULT_SHIM
    GTEST_SKIP() << "nothing can be preloaded under a sanitizer";
#else
    paint(1);
    const TempDir folder;
    const std::string device = folder.file("uinput");
    std::ofstream(device).close();
    Agent agent({.environment = {"DISPLAY=" + source->display(), "LD_PRELOAD=" OX_FAULT_SHIM,
                                 "OX_UINPUT=" + device},
                 .capture = "x11",
                 .input = true});
    Relay relay(agent.port_base());
    Play play(local(relay.port_base()), target->display());
    expect_shown("at first");
    relay.loss_pct = 5;
    use("mousemove 320 240 key x " + kFindWindow + "windowfocus --sync");
    use("click 1");  // captures
    use("key a key Up mousemove_relative -- 30 -20 click 3 click 4 keydown w keydown shift");
    use("mousedown 2 sleep 0.2 windowfocus 0");
    const std::string expected =
        "30:1 30:0 103:1 103:0 r30,-20 273:1 273:0 w1 17:1 42:1 274:1 17:0 42:0 274:0 ";
    EXPECT_TRUE(eventually([&] { return events_of(device) == expected; }, kPatience))
        << events_of(device);
#endif
}

TEST(PlayedSound, HasThePitchAndTheLevelOfThePcs) {
    const auto target = Xvfb::start({});
    if (!target) GTEST_SKIP() << "no Xvfb on this machine";
    const PulseDaemon pulse;
    ASSERT_TRUE(pulse.play_tone("out", 440));
    Agent agent({.arguments = {"--audio"}, .environment = pulse.environment()});
    auto environment = PulseDaemon::environment();
    environment.insert(environment.end(), {"PULSE_SINK=spare", "SDL_AUDIODRIVER=pulseaudio"});
    const Play play(local(agent.port_base()), target->display(), {}, environment);
    const TempDir folder;
    const ChildProcess recorder({.argv = {"parec", "--device=spare.monitor", "--format=s16le",
                                          "--channels=2", "--rate=48000", "--latency-msec=20"},
                                 .stdout_path = folder.file("pcm")});
    std::ifstream file(folder.file("pcm"), std::ios::binary);
    launcher::ToneMeter meter;
    std::array<int16_t, 2 * launcher::ToneMeter::kWindow> samples{};
    int good_windows = 0;  // in a row; of 85 ms
    const auto sounds_well = [&] {
        const auto at = file.tellg();
        if (!file.read(static_cast<char*>(static_cast<void*>(samples.data())), sizeof samples)) {
            file.clear();
            file.seekg(at);
            return false;
        }
        meter.add(samples);
        const auto& heard = meter.latest();
        int bend = 0;  // the tone's own second difference is 54, a click's far larger
        for (size_t i = 4; i < samples.size(); i += 2)
            bend = std::max(bend, std::abs(samples[i] - 2 * samples[i - 2] + samples[i - 4]));
        const bool good = std::abs(heard.pitch_hz - 440) < 1 &&
                          std::abs(heard.level_dbfs + 6.02) < 0.2 && bend < 80;
        good_windows = good ? good_windows + 1 : 0;
        return good_windows == 24;
    };
    EXPECT_TRUE(eventually(sounds_well, 3 * kPatience)) << good_windows;
}

TEST(PlayFailures, AreOneLineAndAStatusEach) {
    const auto target = Xvfb::start({});
    if (!target) GTEST_SKIP() << "no Xvfb on this machine";
    Agent agent, dark_agent, hevc_agent;
    Relay dark(dark_agent.port_base());
    Relay hevc(hevc_agent.port_base());
    dark.loss_pct = 100;
    hevc.other_codec = true;
    const PortBlock nobody, mute, other;
    const UniqueFd mute_listener = bound_socket(SOCK_STREAM, mute.control());
    const UniqueFd other_listener = bound_socket(SOCK_STREAM, other.control());
    struct Case {
        int status;
        const char* error;
        std::string host = "127.0.0.1";
        std::vector<std::string> arguments = {};
        bool display = true;
    };
    const std::vector<Case> cases = {
        {2, "No such file", "127.0.0.1", {"--token-file", "/nonexistent"}},
        {3, "Connection refused", local(nobody.base())},
        {4, "token", local(agent.port_base()), {"--token", "wrong"}},
        {5, "did not answer", local(mute.base())},
        {5, "no picture came", local(dark.port_base())},
#if !defined(__SANITIZE_THREAD__)  // x265, built without ThreadSanitizer, stalls
        {6, "cannot be decoded", local(hevc.port_base())},
#endif
        {8, "no window system", local(agent.port_base()), {}, false},
        {9, "cannot resolve", "no such host"},
        {10, "no orvex-agent", local(other.base())},
    };
    std::vector<std::unique_ptr<Play>> plays;  // some take ten seconds
    for (const Case& its : cases)
        plays.push_back(
            std::make_unique<Play>(its.host, its.display ? target->display() : "", its.arguments));
    const UniqueFd visitor(::accept(other_listener.get(), nullptr, nullptr));
    ::send(visitor.get(), "220 ready\r\n", 11, MSG_NOSIGNAL);
    for (size_t i = 0; i < cases.size(); ++i)
        plays[i]->expect_end(cases[i].status, cases[i].error);
}

}  // namespace
}  // namespace ox::test
