// The sound of a session, from a real PulseAudio server to the launcher, and what costs it.

#include <gtest/gtest.h>
#include <signal.h>

#include <cmath>

#include "e2e/player.h"
#include "launcher/audio_worker.h"
#include "launcher/av_handles.h"
#include "launcher/session.h"
#include "support/pulse_daemon.h"

namespace ox::test {
namespace {

constexpr int kTone = 440;
constexpr double kToneDbfs = -12.04;  // a quarter of full scale

/// The launcher's ear: receives and measures the sound on a thread of its own.
class Ear {
  public:
    Ear(const Agent& agent, const Player& player)
        : worker_(socket_, std::span<const uint8_t, 32>(player.keys().audio_key), nullptr) {
        std::string error;
        EXPECT_TRUE(socket_.open(static_cast<uint16_t>(agent.port_base() + 1), error)) << error;
        socket_.set_agent("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 5));
        EXPECT_TRUE(worker_.start(error)) << error;
    }
    [[nodiscard]] launcher::AudioStats stats() const { return worker_.snapshot().stream; }
    [[nodiscard]] launcher::ToneReport latest() const { return worker_.snapshot().latest; }
    [[nodiscard]] bool hears_the_tone() const {
        const launcher::ToneReport tone = latest();
        return std::abs(tone.pitch_hz - kTone) < 3 && std::abs(tone.level_dbfs - kToneDbfs) < 1;
    }

  private:
    launcher::MediaSocket socket_;
    launcher::AudioWorker worker_;
};

class Sound : public testing::Test {
  protected:
    void SetUp() override {
        tone_ = pulse_.play_tone("out", kTone);
        ASSERT_TRUE(pulse_.wait_for_playback());
    }
    [[nodiscard]] static Agent::Setup with_sound(std::vector<std::string> environment = {}) {
        for (const char* name : {"HOME", "XDG_RUNTIME_DIR"})
            environment.push_back(std::string(name) + "=" + std::getenv(name));
        return {.arguments = {"--audio", "--audio-parity"}, .environment = std::move(environment)};
    }
    static bool hears_the_tone(Player& player, const Ear& ear) {
        return player.receive_until([&] { return ear.hears_the_tone(); }, 3 * kPatience);
    }

    PulseDaemon pulse_;
    std::unique_ptr<ChildProcess> tone_;
};

launcher::Summary run_launcher(const Agent& agent, const std::string& recording) {
    launcher::Options options;
    options.port_base = options.local_port = agent.port_base();
    options.token = kToken;
    options.width = 320;
    options.height = 180;
    options.audio = true;
    options.seconds = 7;
    options.save_stream = recording;
    return launcher::Session(options, nullptr, nullptr).run();
}

/// Packets of sound in a recording; none when they are no Opus or out of order.
size_t recorded_frames(const std::string& path) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return 0;
    size_t frames = 0;
    const launcher::AvPtr<AVPacket> packet(av_packet_alloc());
    int64_t previous = -1'000;
    bool right =
        input->nb_streams == 2 && input->streams[1]->codecpar->codec_id == AV_CODEC_ID_OPUS;
    while (right && av_read_frame(input, packet.get()) >= 0) {
        if (packet->stream_index == 1) {
            ++frames;
            right = packet->pts > previous;
            previous = packet->pts;
        }
        av_packet_unref(packet.get());
    }
    avformat_close_input(&input);
    return right ? frames : 0;
}

TEST_F(Sound, APlayedToneComesOutOfTheLauncherAlsoWithLosses) {
    const TempDir folder;
    for (const bool losses : {false, true}) {
        SCOPED_TRACE(losses ? "with losses" : "without losses");
        Agent agent(with_sound({losses ? "OX_DEBUG_DROP_PCT=8" : "OX_DEBUG_DROP_PCT"}));
        const launcher::Summary summary = run_launcher(agent, folder.file("stream.mkv"));
        ASSERT_EQ(summary.status, launcher::ExitStatus::Ok) << summary.error;
        const launcher::AudioSnapshot& audio = summary.audio;
        const launcher::AudioStats& stream = audio.stream;
        ASSERT_GT(audio.seconds, 2.0);
        EXPECT_NEAR(audio.sound.pitch_hz, kTone, 3);
        EXPECT_NEAR(audio.sound.level_dbfs, kToneDbfs, 1);
        EXPECT_EQ(summary.audio_frame_bytes(), 80.0);
        EXPECT_EQ(stream.undecryptable + stream.malformed + audio.decode_errors, 0U);
        EXPECT_EQ(stream.frames.delivered, audio.frames_decoded);
        // Frames count whether they came, were repaired or lost: that is what was sent.
        const auto sent = static_cast<double>(stream.frames.delivered + stream.frames.lost);
        const double seconds =
            static_cast<double>(stream.last_media_us - stream.first_media_us) / 1e6;
        EXPECT_NEAR(sent / seconds, 200, 10);
        if (losses) {
            EXPECT_GT(stream.frames.repaired, 5U);
            EXPECT_LT(stream.frames.lost, stream.frames.repaired);
        } else {
            EXPECT_EQ(stream.frames.repaired + stream.frames.lost, 0U);
            EXPECT_NEAR(static_cast<double>(stream.repair_packets),
                        static_cast<double>(stream.data_packets) / 2, 4);
        }
        EXPECT_GT(summary.decode.audio_frames_recorded, stream.frames.delivered * 9 / 10);
        EXPECT_EQ(recorded_frames(folder.file("stream.mkv")), summary.decode.audio_frames_recorded);
    }
}

TEST_F(Sound, WhatEndsItCostsNeitherVideoNorTheSoundOfTheNextLauncher) {
    Agent agent(with_sound());
    auto player = std::make_optional<Player>(agent);
    auto ear = std::make_unique<Ear>(agent, *player);
    ASSERT_TRUE(hears_the_tone(*player, *ear));

    const std::pair<const char*, std::function<void()>> ends[] = {
        {"parec killed",
         [&] {
             const auto lines = agent.log().lines();
             const auto started = std::find_if(lines.rbegin(), lines.rend(), [](const auto& line) {
                 return line.find("AudioCapture: parec started") != std::string::npos;
             });
             ASSERT_NE(started, lines.rend());
             ASSERT_EQ(::kill(std::stoi(started->substr(started->rfind("pid=") + 4)), SIGKILL), 0);
         }},
        {"PulseAudio restarted",
         [&] {
             tone_.reset();
             pulse_.kill();
             pulse_.start();
             tone_ = pulse_.play_tone("out", kTone);
             ASSERT_TRUE(pulse_.wait_for_playback());
         }},
    };
    size_t times = 0;
    for (const auto& [what, end] : ends) {
        SCOPED_TRACE(what);
        ++times;
        end();
        EXPECT_TRUE(agent.wait_for_log("AudioCapture: parec closed the pipe after ", times));
        EXPECT_TRUE(agent.wait_for_log("AudioStream: capture ended — stopping audio", times));
        EXPECT_TRUE(player->receive_frames(30)) << "video went with the sound";

        const uint32_t last = ear->stats().last_sequence;
        const auto old_key = player->keys().audio_key;
        ear.reset();
        player.reset();
        ASSERT_TRUE(agent.wait_for_log("Session: launcher lost", times));
        player.emplace(agent);
        ear = std::make_unique<Ear>(agent, *player);
        ASSERT_TRUE(hears_the_tone(*player, *ear));
        EXPECT_NE(player->keys().audio_key, old_key);
        EXPECT_GT(ear->stats().first_sequence, last) << "a number came twice";
    }
}

TEST_F(Sound, AMutedOutputIsSilenceAndIsSaid) {
    Agent agent(with_sound());
    Player player(agent);
    const Ear ear(agent, player);
    ASSERT_TRUE(hears_the_tone(player, ear));
    ASSERT_TRUE(pulse_.pactl("set-sink-mute out 1"));
    EXPECT_TRUE(player.receive_until(
        [&] { return ear.latest().level_dbfs == launcher::ToneReport::kSilenceDbfs; },
        3 * kPatience));
    const std::string line =
        " buffers captured, 0 audible (source=out.monitor) — loopback is SILENT: muted sink, wrong "
        "device, or DRM content";
    EXPECT_TRUE(player.receive_until([&] { return agent.log().count(line) > 0; }, 3 * kPatience));
    const uint64_t packets = ear.stats().data_packets;
    EXPECT_TRUE(player.receive_until([&] { return ear.stats().data_packets > packets + 200; }))
        << "silence is sent too";
    ASSERT_TRUE(pulse_.pactl("set-sink-mute out 0"));
    EXPECT_TRUE(hears_the_tone(player, ear));
    const size_t reports = agent.log().count("AudioStream: sent=");
    EXPECT_TRUE(player.receive_until(
        [&] { return agent.log().count("AudioStream: sent=") > reports; }, 3 * kPatience));
}

TEST(WithoutSound, VideoGoesOnAndTheLogSaysWhy) {
    const auto ports = std::make_shared<PortBlock>();
    const struct {
        const char* what;
        std::vector<std::string> arguments;
        const char* environment;
        std::vector<std::string> lines;
    } cases[] = {
        {"no parec",
         {"--audio"},
         "PATH=/nonexistent",
         {"AudioCapture: parec closed the pipe after 0/",
          "AudioStream: capture ended — stopping audio"}},
        {"no server",
         {"--audio"},
         "PULSE_SERVER=unix:/nonexistent",
         {"AudioStream: capture ended — stopping audio"}},
        {"parity alone",
         {"--audio-parity"},
         "OX_AUDIO_PARITY",
         {"Session: --audio-parity ignored without --audio"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Agent agent({.arguments = c.arguments, .environment = {c.environment}, .ports = ports});
        Player player(agent);
        EXPECT_TRUE(player.receive_frames(30));
        for (const std::string& line : c.lines)
            EXPECT_TRUE(agent.wait_for_log(line));
        EXPECT_TRUE(player.receive_frames(30));
        agent.expect_prompt_stop();
    }
}

}  // namespace
}  // namespace ox::test
