// From SDL's events to what the agent injects.

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

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

/// The keys and buttons that an agent has down, and what changed: "+30 -30 b1 b0 w120 m3,-5 ".
struct Agent {
    void apply(const InputPacket& packet) {
        const auto kind = static_cast<InputKind>(packet.kind);
        if (kind == InputKind::MouseMotion) dx += packet.data0, dy += packet.data1;
        if (kind == InputKind::Wheel) add("w" + std::to_string(packet.data1));
        if (kind == InputKind::KeyDown || kind == InputKind::KeyUp) {
            const int code = linux_key_code(static_cast<uint16_t>(packet.data0), packet.scan_code(),
                                            packet.extended_key());
            const bool down = kind == InputKind::KeyDown;
            if (code != 0 && (down ? keys.insert(code).second : keys.erase(code) != 0))
                add((down ? "+" : "-") + std::to_string(code));
        } else if (kind != InputKind::Wheel && packet.buttons != buttons) {
            buttons = packet.buttons;
            add("b" + std::to_string(buttons));
        }
    }
    void add(const std::string& change) {
        if (dx != 0 || dy != 0) log += "m" + std::to_string(dx) + "," + std::to_string(dy) + " ";
        dx = dy = 0;
        log += change + " ";
    }

    std::set<int> keys;
    int buttons = 0;
    int64_t dx = 0, dy = 0;
    std::string log;
};

TEST(PlayKeyMap, EveryPositionReachesTheAgentAsTheKernelWouldReportIt) {
    // By HID usage, which SDL's scancodes are; 0 where the agent has no code for the key.
    const std::vector<int> expected = {
        0,  0,   0,   0,   30,  48,  46,  32,  18,  33,  34,  35,  23,  36,  37,  38, 50,
        49, 24,  25,  16,  19,  31,  20,  22,  47,  17,  45,  21,  44,  2,   3,   4,  5,
        6,  7,   8,   9,   10,  11,  28,  1,   14,  15,  57,  12,  13,  26,  27,  43, 43,
        39, 40,  41,  51,  52,  53,  58,  59,  60,  61,  62,  63,  64,  65,  66,  67, 68,
        87, 88,  99,  70,  119, 110, 102, 104, 111, 107, 109, 106, 105, 108, 103, 69, 98,
        55, 74,  78,  96,  79,  80,  81,  75,  76,  77,  71,  72,  73,  82,  83,  86, 127,
        0,  117, 183, 184, 185, 186, 187, 188, 189, 190, 191, 192, 193, 194};
    const std::vector<int> modifiers = {29, 42, 56, 125, 97, 54, 100, 126};
    for (int position = 0; position < SDL_NUM_SCANCODES; ++position) {
        const auto at = static_cast<size_t>(position);
        int code = at < expected.size() ? expected[at] : 0;
        if (at >= 0xE0 && at < 0xE8) code = modifiers[at - 0xE0];
        if (at == SDL_SCANCODE_LANG5) code = 41;  // Zenkaku, at the place of the grave accent
        Agent agent;
        const auto key = wire_key_at(static_cast<SDL_Scancode>(position));
        if (key) agent.apply(launcher::make_key_packet(*key, true));
        EXPECT_EQ(agent.log, code == 0 ? "" : "+" + std::to_string(code) + " ") << position;
        if (!key || code == 0) continue;
        // The agent's fallback for virtual keys differs from the keyboard in letters, F11 and F12.
        const uint16_t vk = key->virtual_key;
        const int by_vk = linux_key_code(vk, 0, false);
        if (at >= SDL_SCANCODE_A && at <= SDL_SCANCODE_Z) {
            EXPECT_EQ(vk, 'A' + at - SDL_SCANCODE_A);
        } else if (vk != 0x7A && vk != 0x7B && at != SDL_SCANCODE_KP_ENTER && by_vk != 0) {
            EXPECT_EQ(by_vk, code) << position;
        }
    }
    EXPECT_EQ(wire_key_at(SDL_SCANCODE_VOLUMEUP), (launcher::WireKey{0x30, true, 0xAF}));
}

/// A path to an agent with loss in bursts and reordering, and the sender at its start.
struct Path {
    using Time = InputSender::Time;
    Path(double loss_share, int jitter_ms, unsigned seed)
        : loss(loss_share), jitter(0, jitter_ms), random(seed) {}
    void push(const InputSender::Datagram& datagram) {
        constexpr double kBurstMs = 25;
        for (; state_at < now; state_at += 1ms)
            lossy = uniform(random) < (lossy ? 1 - 1 / kBurstMs : loss / (1 - loss) / kBurstMs);
        if (!lossy) arriving.emplace(now + std::chrono::milliseconds(jitter(random)), datagram);
    }
    void advance(Time to) {
        now = to;
        due = sender.tick(now);
        for (; !arriving.empty() && arriving.begin()->first <= now;
             arriving.erase(arriving.begin())) {
            InputPacket packet;
            ASSERT_TRUE(open_input_datagram(kKey.data(), arriving.begin()->second, packet));
            if (window.accept_sequence(packet.seq)) agent.apply(packet);
        }
    }

    static constexpr std::array<uint8_t, 32> kKey{7};
    const double loss;
    std::uniform_int_distribution<int> jitter;
    std::mt19937 random;
    std::uniform_real_distribution<> uniform;
    Time now{}, state_at{}, due{};
    bool lossy = false;
    launcher::InputSealer sealer{kKey};
    std::multimap<Time, InputSender::Datagram> arriving;
    ReplayWindow window;
    Agent agent;
    InputSender sender{{.send =
                            [this](const InputPacket& packet) {
                                const auto datagram = sealer.seal(packet);
                                push(*datagram);
                                return datagram;
                            },
                        .repeat =
                            [this](const InputSender::Datagram& datagram) {
                                if (sealer.is_recent(datagram)) push(datagram);
                            }}};
};

TEST(PlayInputSender, NothingStaysDownBehindBurstsOfLossAndReordering) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        Path path(0.3, seed % 2 == 0 ? 0 : 40, seed);
        std::bernoulli_distribution change(0.02);
        std::uniform_int_distribution<int> which(16, 40);
        std::map<int, bool> down;
        for (int ms = 0; ms < 10'000; ++ms) {
            path.sender.move(1, 0);  // a mouse of 1000 Hz pushes the numbers on
            if (change(path.random)) {
                const int code = which(path.random);
                down[code] = !down[code];
                path.sender.key(launcher::wire_key(static_cast<uint8_t>(code)), down[code],
                                path.now);
                path.sender.buttons(1, down[code], path.now);
            }
            path.advance(path.now + 1ms);
        }
        path.sender.release_all(path.now);
        while (path.due != InputSender::Time::max())
            path.advance(path.due);
        path.advance(path.now + 1000ms);
        EXPECT_EQ(path.agent.keys, std::set<int>{}) << seed;
        EXPECT_EQ(path.agent.buttons, 0) << seed;
    }
}

TEST(PlayInputSender, OnACleanPathEverythingArrivesOnceAndInOrder) {
    Path path(0, 0, 0);
    const auto key = launcher::wire_key(72, true);
    path.sender.move(70'000, -3);
    path.sender.key(key, true, path.now);
    path.advance(path.now + 5000ms);
    path.sender.key(key, true, path.now);  // auto-repeat
    path.sender.buttons(2, true, path.now);
    for (int i = 0; i < 25; ++i)
        path.sender.wheel(0.1, path.now);
    path.sender.wheel(-1, path.now);
    path.sender.move(1, 1);
    path.sender.release_all(path.now);
    while (path.due != InputSender::Time::max())
        path.advance(path.due);
    EXPECT_EQ(path.agent.log, "m70000,-3 +103 b2 w120 w120 w-120 m1,1 -103 b0 ");
}

TEST(PlayInputCapture, SendsWhatTheWindowOfTheXServerGets) {
    const auto server = test::Xvfb::start({});
    ASSERT_NE(server, nullptr);
    const test::Environment display("DISPLAY", server->display());
    const test::Environment driver("SDL_VIDEODRIVER", "x11");
    ASSERT_EQ(SDL_Init(SDL_INIT_VIDEO), 0) << SDL_GetError();
    SDL_Window* window = SDL_CreateWindow("", 0, 0, 320, 240, 0);
    SDL_Window* other = SDL_CreateWindow("", 400, 0, 100, 100, 0);
    Agent agent;
    std::optional<InputCapture> capture;
    capture.emplace(
        window,
        InputSender::Output{
            .send = [&](const InputPacket& packet) -> std::optional<InputSender::Datagram> {
                agent.apply(packet);
                return std::nullopt;
            },
            .repeat = {}},
        false);
    std::vector<Command> commands;
    const auto pump = [&] {
        for (SDL_Event event; SDL_PollEvent(&event) != 0;)
            if (const auto command = capture->handle(event)) commands.push_back(*command);
        capture->tick(SteadyClock::now());
        return true;
    };
    const auto focus = [&](SDL_Window* target) {
        SDL_SetWindowInputFocus(target);
        return test::eventually([&] { return pump() && SDL_GetKeyboardFocus() == target; });
    };
    // What the agent is sent for xdotool's commands; `last` comes last.
    const auto sent = [&](const std::string& commands_text, const std::string& expected) {
        test::ChildProcess xdotool({.argv = {"sh", "-c", "xdotool " + commands_text}});
        test::eventually([&] { return pump() && !xdotool.running() && agent.log == expected; });
        return std::exchange(agent.log, {});
    };
    ASSERT_TRUE(focus(window));
    const auto expect = [&](const std::string& text, const std::string& expected) {
        EXPECT_EQ(sent(text, expected), expected) << text;
    };
    expect("mousemove 100 100 click 1 key a", "");
    capture->set_enabled(true);
    // The click that captures is not sent, nor is what came before it.
    expect("key a mousemove 100 90 click 1 key b", "+48 -48 ");
    EXPECT_TRUE(capture->captured());
    expect("mousemove_relative -- 30 -12 mousedown 1 keydown shift key a keyup shift mouseup 1",
           "m30,-12 b1 +42 +30 -30 -42 b0 ");
    expect("click 3 click 2 click 4 click 5 click 5 key Up click 8",
           "b2 b0 b4 b0 w120 w-120 w-120 +103 -103 +184 -184 ");
    // The chord's modifiers are released on the PC, its key never reaches it.
    expect("keydown ctrl keydown alt keydown shift key s keyup shift keyup alt keyup ctrl",
           "+29 +56 +42 -29 -56 -42 ");
    expect("key ctrl+alt+shift+q key b", "+29 +56 +42 -29 -56 -42 +48 -48 ");
    EXPECT_EQ(commands, (std::vector{Command::ToggleStats, Command::Quit}));
    expect("keydown w mousedown 1", "+17 b1 ");
    EXPECT_TRUE(focus(other));
    expect("keyup w mouseup 1", "-17 b0 ");
    EXPECT_FALSE(capture->captured());
    capture.reset();
    SDL_DestroyWindow(other);
    SDL_DestroyWindow(window);
    SDL_Quit();
}

}  // namespace
}  // namespace ox::play
