// orvex-play's window on one X server, the agent on another.

#include <gtest/gtest.h>

#include "e2e/agent.h"
#include "e2e/relay.h"
#include "support/eventually.h"
#include "support/x_painter.h"
#include "support/xvfb.h"

namespace ox::test {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 480;
constexpr uint32_t kBlock = 16;

using Colours = std::array<int, 3>;
Colours colours(uint32_t pixel) {
    return {static_cast<int>(pixel >> 16 & 0xFF), static_cast<int>(pixel >> 8 & 0xFF),
            static_cast<int>(pixel & 0xFF)};
}

/// Blocks of random colours, none of them as bright or as dark as the player's texts.
struct TestPicture {
    explicit TestPicture(uint32_t seed) {
        std::mt19937 random(seed);
        const auto channel = [&] { return 48 + random() % 144; };
        for (uint32_t& block : blocks)
            block = static_cast<uint32_t>(channel() << 16 | channel() << 8 | channel());
    }
    void paint(XPainter& painter) const {
        for (uint32_t i = 0; i < blocks.size(); ++i)
            painter.fill(static_cast<int>(i % kColumns * kBlock),
                         static_cast<int>(i / kColumns * kBlock), kBlock, kBlock, blocks[i]);
    }
    [[nodiscard]] uint32_t at(uint32_t x, uint32_t y) const {
        return blocks[(y / kBlock * kColumns + x / kBlock) % blocks.size()];
    }

    static constexpr uint32_t kColumns = kWidth / kBlock;
    std::vector<uint32_t> blocks = std::vector<uint32_t>(kColumns * kHeight / kBlock);
};

/// What a window shows.
struct Shown {
    explicit Shown(XPainter& screen) : pixels(screen.read_window(width, height)) {}

    struct Difference {
        double mean = 255;
        int largest = 255;
        int bars = 255;  ///< brightest beside the picture
    };
    /// From `picture` in the middle of the window, moved to the right by `shift` and with red and
    /// blue swapped if `swapped`. Of a scaled picture without the blocks' edges.
    [[nodiscard]] Difference from(const TestPicture& picture, uint32_t shift = 0,
                                  bool swapped = false) const {
        if (pixels.empty()) return {};
        const double scale = std::min(1.0 * width / kWidth, 1.0 * height / kHeight);
        const double left = std::floor((width - kWidth * scale) / 2);
        const double top = std::floor((height - kHeight * scale) / 2);
        const double margin = scale == 1 ? 0 : 2 / scale;
        double sum = 0;
        int count = 0;
        Difference result{.mean = 255, .largest = 0, .bars = 0};
        for (uint32_t i = 0; i < pixels.size(); ++i) {
            const double x = (i % width - left + 0.5) / scale;
            const double y = (static_cast<double>(i / width) - top + 0.5) / scale;
            Colours seen = colours(pixels[i]);
            if (x < -margin || y < -margin || x > kWidth + margin || y > kHeight + margin)
                result.bars = std::max(result.bars, *std::ranges::max_element(seen));
            const auto near_edge = [&](double at) {
                const double inside = std::fmod(at, kBlock);
                return at < 0 || inside < margin || inside > kBlock - margin;
            };
            if (near_edge(x) || near_edge(y) || x >= kWidth || y >= kHeight) continue;
            if (swapped) std::swap(seen[0], seen[2]);
            const Colours wanted =
                colours(picture.at(static_cast<uint32_t>(x) + shift, static_cast<uint32_t>(y)));
            for (size_t channel = 0; channel < 3; ++channel, ++count) {
                const int difference = std::abs(seen[channel] - wanted[channel]);
                sum += difference;
                result.largest = std::max(result.largest, difference);
            }
        }
        result.mean = sum / count;
        return result;
    }
    /// Letters in the middle.
    [[nodiscard]] size_t white_pixels() const {
        return static_cast<size_t>(std::ranges::count(pixels, 0xFFFFFFU));
    }

    uint32_t width = 0, height = 0;
    std::vector<uint32_t> pixels;
};

/// The real program.
struct Play {
    explicit Play(const std::string& host, const std::string& display,
                  const std::vector<std::string>& more = {})
        : process(command(host, display, more, folder)) {}

    static ChildProcess::Options command(const std::string& host, const std::string& display,
                                         const std::vector<std::string>& more,
                                         const TempDir& folder) {
        ChildProcess::Options options;
        options.argv = {OX_PLAY_PATH, host, "--size", "640x480"};
        options.argv.insert(options.argv.end(), more.begin(), more.end());
        options.environment = {display.empty() ? "DISPLAY" : "DISPLAY=" + display,
                               "WAYLAND_DISPLAY",
                               "SDL_VIDEODRIVER",
                               "LC_ALL=C.UTF-8",
                               std::string("ORVEX_TOKEN=") + kToken,
                               "XDG_RUNTIME_DIR=" + folder.path().string()};
        options.stdout_path = folder.file("stdout.txt");
        options.stderr_path = folder.file("stderr.txt");
        return options;
    }
    /// Expects its end with this status and one line that contains `error`.
    void expect_end(int status, const std::string& error) {
        EXPECT_EQ(process.wait(kPatience + 15s), status);
        const auto lines = LogFile(folder.file("stderr.txt")).lines();
        ASSERT_EQ(lines.size(), 1U) << error;
        EXPECT_TRUE(lines[0].starts_with("orvex-play: ")) << lines[0];
        EXPECT_NE(lines[0].find(error), std::string::npos) << lines[0];
    }

    TempDir folder;
    ChildProcess process;
};

std::string local(uint16_t port_base) {
    return "127.0.0.1:" + std::to_string(port_base);
}

class PlayedDesktop : public testing::Test {
  protected:
    void SetUp() override {
        if (!source || !target) GTEST_SKIP() << "no Xvfb on this machine";
        screen.emplace(target->display());
        desktop.emplace(source->display());
        agent.emplace(Agent::Setup{
            .environment = {"DISPLAY=" + source->display()}, .capture = "x11", .input = true});
        relay.emplace(agent->port_base());
    }
    void paint(uint32_t seed) {
        picture = TestPicture(seed);
        picture.paint(*desktop);
    }
    /// The largest difference seen in a window of this program with the same codec was 5 unscaled
    /// and 20 scaled; the mean was below 1.
    [[nodiscard]] bool is_shown(uint32_t shift = 0, bool swapped = false) {
        const Shown shown(*screen);
        const auto [mean, largest, bars] = shown.from(picture, shift, swapped);
        const bool scaled = shown.width != kWidth || shown.height != kHeight;
        last = std::to_string(shown.width) + "x" + std::to_string(shown.height) + ": mean " +
               std::to_string(mean) + ", largest " + std::to_string(largest) + ", bars " +
               std::to_string(bars) + ", white " + std::to_string(shown.white_pixels());
        return mean < 2 && largest < (scaled ? 40 : 16) && bars < 8;
    }
    void expect_shown(const std::string& where) {
        SCOPED_TRACE(where);
        EXPECT_TRUE(eventually([this] { return is_shown(); }, kPatience)) << last;
        EXPECT_FALSE(is_shown(4)) << "in the wrong place: " << last;
        EXPECT_FALSE(is_shown(0, true)) << "in the wrong colours: " << last;
    }
    /// Waits for a message over the picture; its letters.
    size_t expect_message(size_t other_than = 0) {
        constexpr size_t kLetters = 40;
        size_t white = 0;
        const auto comes = [&] {
            white = Shown(*screen).white_pixels();
            return white > kLetters && white != other_than;
        };
        EXPECT_TRUE(eventually(comes, kPatience)) << "no message";
        return white;
    }

    std::unique_ptr<Xvfb> source = Xvfb::start({});
    std::unique_ptr<Xvfb> target = Xvfb::start({.screen = "800x600x24"});
    std::optional<XPainter> desktop, screen;
    std::optional<Agent> agent;
    std::optional<Relay> relay;
    TestPicture picture{1};
    std::string last;
};

TEST_F(PlayedDesktop, IsShownPixelForPixelOrAMessageSaysWhyNot) {
    paint(1);
    relay->cut = true;
    Play play(local(relay->port_base()), target->display(), {"--bitrate", "8000"});
    expect_message();
    relay->cut = false;
    expect_shown("unscaled");
    for (const auto& [width, height] : {std::pair{700U, 300U}, {510U, 600U}, {kWidth, kHeight}}) {
        screen->resize_window(width, height);
        expect_shown("resized");
    }

    relay->loss_pct = 5;
    for (uint32_t change = 0; change < 40 || relay->lost < 30; ++change) {
        const uint32_t colour = 0x404040U + change % 8 * 0x101000U;
        desktop->fill(0, 0, kBlock, kBlock, colour);
        const auto is_there = [&] {
            const Shown shown(*screen);
            const Colours seen = colours(shown.pixels.at(4 * kWidth + 4));
            const Colours wanted = colours(colour);
            return std::abs(seen[0] - wanted[0]) < 8 && std::abs(seen[1] - wanted[1]) < 8;
        };
        ASSERT_TRUE(eventually(is_there, 5s * kSlowdown)) << "frozen after " << relay->lost;
    }
    paint(2);
    expect_shown("with losses");

    relay->loss_pct = 100;
    expect_message();
    relay->loss_pct = 0;
    expect_shown("after a silence");

    relay->cut = true;
    expect_message(expect_message());  // the seconds left
    paint(3);
    relay->cut = false;
    expect_shown("after a cut");

    agent->expect_prompt_stop();
    expect_message();
    play.expect_end(7, "the PC ended the session");
}

/// Accepts one connection at the port and answers with `text`, once asked.
void answer(const UniqueFd& listener, const std::string& text) {
    pollfd waiting{listener.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&waiting, 1, static_cast<int>(kPatience.count())), 1);
    const UniqueFd connection(::accept(listener.get(), nullptr, nullptr));
    std::array<char, 512> asked{};
    ::recv(connection.get(), asked.data(), asked.size(), 0);
    ::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL);
    ::recv(connection.get(), asked.data(), asked.size(), 0);  // until it hangs up
}

TEST(PlayFailures, AreOneLineAndAStatusEach) {
    const auto target = Xvfb::start({});
    if (!target) GTEST_SKIP() << "no Xvfb on this machine";
    const std::string& display = target->display();
    Agent agent;
    Agent other;
    Relay without_datagrams(agent.port_base());
    Relay other_codec(other.port_base());
    without_datagrams.loss_pct = 100;
    other_codec.other_codec = true;
    const PortBlock nobody;
    const PortBlock mute;
    const PortBlock nonsense;
    const UniqueFd mute_listener = bound_socket(SOCK_STREAM, mute.control());
    const UniqueFd nonsense_listener = bound_socket(SOCK_STREAM, nonsense.control());

    Play(local(agent.port_base()), display, {"--token", "wrong"}).expect_end(4, "token");
    // Some take ten seconds.
    Play refused(local(nobody.base()), display);
    Play unanswered(local(mute.base()), display);
    Play dark(local(without_datagrams.port_base()), display);
#if !defined(__SANITIZE_THREAD__)  // x265, built without ThreadSanitizer, stalls
    Play undecodable(local(other_codec.port_base()), display);
#endif
    Play babbled(local(nonsense.base()), display);
    answer(nonsense_listener, "SSH-2.0-OpenSSH_9.2\r\n");
    babbled.expect_end(10, "no orvex-agent");
    Play(local(agent.port_base()), "").expect_end(8, "no window system");
    Play(local(agent.port_base()), ":99999").expect_end(8, "no window system");
    Play("no such host", display).expect_end(9, "cannot resolve");
    Play(local(agent.port_base()), display, {"--token-file", "/nonexistent"})
        .expect_end(2, "No such file");
    refused.expect_end(3, "Connection refused");
    unanswered.expect_end(5, "did not answer");
    dark.expect_end(5, "no picture came");
#if !defined(__SANITIZE_THREAD__)
    undecodable.expect_end(6, "cannot be decoded");
#endif
}

}  // namespace
}  // namespace ox::test
