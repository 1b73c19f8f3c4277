// The sound of a session, from a real PulseAudio server to the launcher.

#include <gtest/gtest.h>
#include <poll.h>

#include <cmath>

#include "base/mutex.h"
#include "e2e/player.h"
#include "launcher/client/audio_worker.h"
#include "launcher/tone_meter.h"
#include "support/pulse_daemon.h"
#include "support/sockets.h"

namespace ox::test {
namespace {

constexpr int kTone = 440;
constexpr double kToneDbfs = -6.02;  // half of full scale

/// A launcher that also receives and measures the sound.
struct Listener : Player {
    explicit Listener(const Agent& agent, const Setup& setup = {}) : Player(agent, setup) {
        std::string error;
        const int port = setup.media_port == 0 ? agent.port_base() : setup.media_port;
        EXPECT_TRUE(socket.open(static_cast<uint16_t>(port + 1), error,
                                "127.0.0." + std::to_string(setup.host)))
            << error;
        socket.set_agent("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 5));
        EXPECT_TRUE(worker.start(error)) << error;
    }
    [[nodiscard]] launcher::AudioStats sound() const { return worker.snapshot().stream; }
    /// Waits for the tone at its loudness, or for silence.
    bool hears(bool tone) {
        return receive_until(
            [&] {
                const launcher::ToneReport heard = latest();
                if (!tone) return heard.level_dbfs == launcher::ToneReport::kSilenceDbfs;
                return std::abs(heard.pitch_hz - kTone) < 3 &&
                       std::abs(heard.level_dbfs - kToneDbfs) < 1;
            },
            3 * kPatience);
    }

    launcher::ToneReport latest() {
        const MutexLock lock(mutex);
        return meter.latest();
    }

    Mutex mutex;
    launcher::ToneMeter meter OX_GUARDED_BY(mutex);
    launcher::MediaSocket socket;
    launcher::AudioWorker worker{socket,
                                 std::span<const uint8_t, 32>(keys().audio_key),
                                 {.frame = {}, .samples = [this](auto pcm, const auto&) {
                                      const MutexLock lock(mutex);
                                      meter.add(pcm);
                                  }}};
};

TEST(Sound, IsSentAlsoWhenSilentAndItsEndCostsNeitherVideoNorTheNextLaunchersSound) {
    PulseDaemon pulse;
    ASSERT_TRUE(pulse.play_tone("out", kTone));
    Agent agent({.arguments = {"--audio", "--audio-parity"}, .environment = pulse.environment()});
    auto player = std::make_optional<Listener>(agent);
    ASSERT_TRUE(player->hears(true));

    // The launcher returns from another address; its probes come after a stranger's.
    player.reset();
    ASSERT_TRUE(agent.wait_for_log("AudioStream: thread exit (sent="));
    UniqueFd former = bound_socket(SOCK_DGRAM, agent.port_base());
    const UniqueFd stranger = bound_socket(SOCK_DGRAM, 0, 3);
    for (const int port : {agent.port_base() + 4, agent.port_base() + 5}) {
        const sockaddr_in to = loopback(static_cast<uint16_t>(port));
        ::sendto(stranger.get(), "OXP1", 4, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
    const PortBlock other_ports;
    player.emplace(agent, Player::Setup{.host = 2, .media_port = other_ports.base()});
    pollfd picture{.fd = former.get(), .events = POLLIN, .revents = 0};
    ASSERT_EQ(::poll(&picture, 1, static_cast<int>(kPatience.count())), 1);
    former.reset();
    EXPECT_TRUE(player->receive_frames(10));
    EXPECT_LE(player->stats().frames_withheld, 2U) << "had to ask for a keyframe";
    ASSERT_TRUE(player->hears(true));

    ASSERT_TRUE(pulse.pactl("set-sink-mute out 1"));
    EXPECT_TRUE(player->hears(false));
    constexpr const char* kSilent = " 0 audible (source=out.monitor) — loopback is SILENT: muted";
    EXPECT_TRUE(
        player->receive_until([&] { return agent.log().count(kSilent) > 0; }, 3 * kPatience));
    ASSERT_TRUE(pulse.pactl("set-sink-mute out 0"));
    EXPECT_TRUE(player->hears(true));
    const launcher::AudioStats whole = player->sound();
    EXPECT_EQ(whole.frames.repaired + whole.frames.lost, 0U);
    EXPECT_NEAR(static_cast<double>(whole.repair_packets),
                static_cast<double>(whole.data_packets) / 2, 4);

    // The server restarts, as after a crash.
    pulse.start();
    ASSERT_TRUE(pulse.play_tone("out", kTone));
    EXPECT_TRUE(agent.wait_for_log("AudioCapture: parec closed the pipe after "));
    EXPECT_TRUE(agent.wait_for_log("AudioStream: capture ended — stopping audio"));
    EXPECT_TRUE(player->receive_frames(30)) << "video went with the sound";
    const uint32_t last = player->sound().last_sequence;
    const Secret old_key = player->keys().audio_key.copy();
    player.reset();
    ASSERT_TRUE(agent.wait_for_log("Session: launcher lost", 2));
    player.emplace(agent);
    ASSERT_TRUE(player->hears(true));
    EXPECT_NE(player->keys().audio_key, old_key);
    EXPECT_GT(player->sound().first_sequence, last) << "a number came twice";
}

}  // namespace
}  // namespace ox::test
