// From SDL's events to what the agent injects.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <set>

#include "input/key_map.h"
#include "input/replay_window.h"
#include "play/input/input_capture.h"
#include "play/input/key_map.h"
#include "support/environment.h"
#include "support/eventually.h"
#include "support/xvfb.h"

namespace ox::play {
namespace {

using std::chrono_literals::operator""ms;

/// What an agent has down, and what changed: "+30 -30 b1 b0 w120 m3,-5 ".
struct Agent {
    void apply(const InputPacket& packet) {
        const auto kind = static_cast<InputKind>(packet.kind);
        if (kind == InputKind::MouseMotion) dx += packet.data0, dy += packet.data1;
        if (kind == InputKind::Wheel) return add("w" + std::to_string(packet.data1));
        const bool down = kind == InputKind::KeyDown;
        const int code = linux_key_code(static_cast<uint16_t>(packet.data0), packet.scan_code(),
                                        packet.extended_key());
        if (!down && kind != InputKind::KeyUp) {
            if (packet.buttons != buttons) add("b" + std::to_string(buttons = packet.buttons));
        } else if (code != 0 && (down ? keys.insert(code).second : keys.erase(code) != 0)) {
            add((down ? "+" : "-") + std::to_string(code));
        }
    }
    void add(const std::string& change) {
        if (dx != 0 || dy != 0) log += "m" + std::to_string(dx) + "," + std::to_string(dy) + " ";
        dx = dy = 0;
        log += change + " ";
    }
    std::set<int> keys;
    int buttons = 0, dx = 0, dy = 0;
    std::string log;
};

TEST(PlayKeyMap, EveryPositionReachesTheAgentAsTheKernelWouldReportIt) {
    // By HID usage, as SDL's scancodes; the agent has no codes for power and what is behind F24.
    std::vector<int> kernel = {
        0,  0,   0,   0,   30,  48,  46,  32,  18,  33,  34,  35,  23,  36,  37,  38, 50,
        49, 24,  25,  16,  19,  31,  20,  22,  47,  17,  45,  21,  44,  2,   3,   4,  5,
        6,  7,   8,   9,   10,  11,  28,  1,   14,  15,  57,  12,  13,  26,  27,  43, 43,
        39, 40,  41,  51,  52,  53,  58,  59,  60,  61,  62,  63,  64,  65,  66,  67, 68,
        87, 88,  99,  70,  119, 110, 102, 104, 111, 107, 109, 106, 105, 108, 103, 69, 98,
        55, 74,  78,  96,  79,  80,  81,  75,  76,  77,  71,  72,  73,  82,  83,  86, 127,
        0,  117, 183, 184, 185, 186, 187, 188, 189, 190, 191, 192, 193, 194};
    kernel.resize(SDL_NUM_SCANCODES);
    std::ranges::copy(std::to_array({29, 42, 56, 125, 97, 54, 100, 126}), &kernel[0xE0]);
    kernel[SDL_SCANCODE_LANG5] = 41;  // in the place of the grave accent
    for (size_t at = 0; at < kernel.size(); ++at) {
        const auto key = wire_key_at(static_cast<SDL_Scancode>(at)).value_or(launcher::WireKey());
        EXPECT_EQ(linux_key_code(key.virtual_key, key.scan_code, key.extended), kernel[at]) << at;
    }
    EXPECT_EQ(wire_key_at(SDL_SCANCODE_Y), (launcher::WireKey{21, false, 'Y'}));
}

TEST(PlayInputSender, NothingStaysDownBehindBurstsOfLossAndReordering) {
    constexpr std::array<uint8_t, 32> kKey{7};
    launcher::InputSealer sealer{kKey};
    std::mt19937 random;
    bool lossy = false;  // 30 % of the time, in bursts of 25 ms; the rest is up to 40 ms late
    InputSender::Time now{};
    std::multimap<InputSender::Time, InputSender::Datagram> arriving;
    const auto push = [&](const auto& datagram) {
        if (!lossy) arriving.emplace(now + std::chrono::milliseconds(random() % 40), datagram);
    };
    InputSender sender{{.send =
                            [&](const auto& packet) {
                                const auto datagram = sealer.seal(packet);
                                push(*datagram);
                                return datagram;
                            },
                        .repeat = push}};
    ReplayWindow window;
    Agent agent;
    const auto advance = [&] {
        now += 1ms;
        lossy = random() % 1000 < (lossy ? 960 : 17);
        const auto due = sender.tick(now);
        for (InputPacket packet; !arriving.empty() && arriving.begin()->first <= now;
             arriving.erase(arriving.begin()))
            if (open_input_datagram(kKey.data(), arriving.begin()->second, packet) &&
                window.accept_sequence(packet.seq))
                agent.apply(packet);
        return due != InputSender::Time::max() || !arriving.empty();
    };
    for (int round = 0; round < 20; ++round) {
        for (int ms = 0; ms < 5000; ++ms, advance()) {
            sender.move(1, 0);  // a mouse of 1000 Hz pushes the numbers on
            const auto draw = random();
            const auto key = launcher::wire_key(static_cast<uint8_t>(16 + draw / 64 % 16));
            if (draw % 64 == 0) sender.key(key, draw / 4096 % 2 == 0, now);
            if (draw % 64 == 1) sender.buttons(1, draw / 4096 % 2 == 0, now);
        }
        sender.release_all(now);
        while (advance()) {
        }
        EXPECT_EQ(agent.keys, std::set<int>{}) << round;
        EXPECT_EQ(agent.buttons, 0) << round;
    }
    EXPECT_GT(agent.log.size(), 1000U);
}

TEST(PlayInputCapture, SendsWhatTheWindowGets) {
    const auto server = test::Xvfb::start({});
    ASSERT_NE(server, nullptr);
    const test::Environment display("DISPLAY", server->display());
    const test::Environment driver("SDL_VIDEODRIVER", "x11");
    ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
    const std::shared_ptr<void> quit(nullptr, [](void*) { SDL_Quit(); });
    SDL_Window* window = SDL_CreateWindow("", 0, 0, 320, 240, 0);
    Agent agent;
    std::vector<Command> commands;
    const auto apply = [&](const auto& packet) -> std::optional<InputSender::Datagram> {
        agent.apply(packet);
        return std::nullopt;
    };
    InputCapture capture(window, {.send = apply, .repeat = {}}, false);
    const auto pump = [&] {
        for (SDL_Event event; SDL_PollEvent(&event) != 0;)
            if (const auto command = capture.handle(event)) commands.push_back(*command);
        capture.tick(SteadyClock::now());
        return true;
    };
    const auto expect = [&](const std::string& input, const std::string& expected) {
        test::ChildProcess xdotool({.argv = {"sh", "-c", "xdotool " + input}});
        test::eventually([&] {
            const bool ended = !xdotool.running();
            return pump() && ended && agent.log == expected;
        });
        EXPECT_EQ(std::exchange(agent.log, {}), expected) << input;
    };
    SDL_SetWindowInputFocus(window);
    ASSERT_TRUE(test::eventually([&] { return pump() && SDL_GetKeyboardFocus() == window; }));
    expect("mousemove 100 100 click 1 key a", "");
    capture.set_enabled(true);
    // Neither the click that captures is sent nor what came before it; motion has no edges.
    expect("key a mousemove 100 90 click 1 key b", "+48 -48 ");
    expect("mousemove_relative -- 30 -500 mousedown 1 keydown shift key a keyup shift mouseup 1",
           "m30,-500 b1 +42 +30 -30 -42 b0 ");
    expect("click 3 click 2 click 4 click 5 click 5 key Up click 8",
           "b2 b0 b4 b0 w120 w-120 w-120 +103 -103 +184 -184 ");
    // A high-resolution wheel, and motion beyond a packet's range.
    SDL_Event event{.wheel = {SDL_MOUSEWHEEL, 0, 0, 0, 0, 0, SDL_MOUSEWHEEL_FLIPPED, 0, .1F, 0, 0}};
    for (int i = 0; i < 25; ++i)
        capture.handle(event);
    event.motion = {SDL_MOUSEMOTION, 0, 0, 0, 0, 0, 0, 70'000, 0};
    capture.handle(event);
    // The chord's modifiers are released, its key is not sent.
    expect("key ctrl+alt+shift+s key ctrl+alt+shift+q key b",
           "w-120 w-120 m70000,0 +29 +56 +42 -29 -56 -42 +29 +56 +42 -29 -56 -42 +48 -48 ");
    EXPECT_EQ(commands, (std::vector{Command::ToggleStats, Command::Quit}));
    expect("keydown w mousedown 1", "+17 b1 ");
    SDL_HideWindow(window);
    expect("keyup w mouseup 1", "-17 b0 ");
    EXPECT_FALSE(capture.captured());
}

}  // namespace
}  // namespace ox::play
