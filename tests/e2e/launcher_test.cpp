// The reference launcher's session with the real agent, and its output files.

#include <gtest/gtest.h>
#include <signal.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <nlohmann/json.hpp>

#include "audio/audio_encoder.h"
#include "e2e/agent.h"
#include "launcher/client/av_handles.h"
#include "launcher/session.h"
#include "support/pulse_daemon.h"
#include "support/sockets.h"

namespace ox::launcher {
namespace {

using namespace std::chrono_literals;
using test::Agent;
using test::kPatience;

Options options_for(uint16_t port_base) {
    Options options;
    options.port_base = options.local_port = port_base;
    options.token = test::kToken;
    options.width = 320;
    options.height = 180;
    options.bitrate_kbps = 2000;
    options.check_stamps = true;
    return options;
}

/// The contents of a file, read by libavformat and libavcodec.
struct MediaFile {
    std::array<std::pair<AVCodecID, std::vector<int64_t>>, 2> tracks;  ///< with times in ms
    int pictures = 0;
    AvPtr<AVFrame> last{av_frame_alloc()};
};

MediaFile read_file(const std::string& path) {
    MediaFile found;
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) return found;
    avformat_find_stream_info(input, nullptr);
    for (size_t i = 0; i < input->nb_streams; ++i)
        found.tracks.at(i).first = input->streams[i]->codecpar->codec_id;
    const AvPtr<AVCodecContext> decoder(
        avcodec_alloc_context3(avcodec_find_decoder(found.tracks[0].first)));
    avcodec_parameters_to_context(decoder.get(), input->streams[0]->codecpar);
    avcodec_open2(decoder.get(), nullptr, nullptr);
    const AvPtr<AVPacket> packet(av_packet_alloc());
    const AvPtr<AVFrame> picture(av_frame_alloc());
    const auto decode = [&](const AVPacket* next) {
        avcodec_send_packet(decoder.get(), next);
        for (; avcodec_receive_frame(decoder.get(), picture.get()) >= 0; ++found.pictures) {
            av_frame_unref(found.last.get());
            av_frame_move_ref(found.last.get(), picture.get());
        }
    };
    for (; av_read_frame(input, packet.get()) >= 0; av_packet_unref(packet.get())) {
        const int index = packet->stream_index;
        const AVRational& base = input->streams[index]->time_base;
        found.tracks.at(static_cast<size_t>(index))
            .second.push_back(av_rescale_q(packet->pts, base, {1, 1000}));
        if (index == 0) decode(packet.get());
    }
    decode(nullptr);
    avformat_close_input(&input);
    return found;
}

/// The number in a picture's corner, from the first byte of each pixel.
std::optional<uint32_t> stamp_of(const AVFrame& picture, size_t bytes_per_pixel) {
    std::vector<uint8_t> levels;
    for (size_t at = 0; at < size_t{8 * 256}; ++at)
        levels.push_back(picture.data[0][at / 256 * static_cast<size_t>(picture.linesize[0]) +
                                         at % 256 * bytes_per_pixel]);
    return read_frame_stamp({.bytes = levels, .stride = 256, .width = 256, .height = 8});
}

/// Expects a tone of 440 Hz and half of full scale, partly lost on the way.
void expect_the_tone(const Summary& summary, const MediaFile& recording) {
    const AudioSnapshot& audio = summary.audio;
    const AudioStats& stream = audio.stream;
    ASSERT_GT(audio.seconds, 1.0);
    EXPECT_NEAR(summary.outputs.sound.pitch_hz, 440, 3);
    EXPECT_NEAR(summary.outputs.sound.level_dbfs, -6.02, 1);
    EXPECT_EQ(stream.undecryptable + stream.malformed + audio.decode_errors, 0U);
    EXPECT_GT(stream.frames.repaired, 5U);
    EXPECT_LT(stream.frames.lost, stream.frames.repaired);
    const auto& [codec, times] = recording.tracks[1];
    EXPECT_EQ(codec, AV_CODEC_ID_OPUS);
    EXPECT_EQ(times.size(), summary.outputs.recorded.audio_frames);
    EXPECT_EQ(std::ranges::adjacent_find(times, std::ranges::greater_equal{}), times.end());
    // The file begins with the first picture, which losses may delay.
    ASSERT_GT(times.size(), 1U);
    const auto frames = static_cast<size_t>(times.back() - times.front()) / AudioEncoder::kFrameMs;
    EXPECT_GT(times.size(), frames * 8 / 10);
}

void expect_all_of_a_session(bool lossy) {
    const test::TempDir folder;
    test::Agent::Setup setup;
    std::optional<test::PulseDaemon> pulse;
    if (lossy) {
        pulse.emplace();
        ASSERT_TRUE(pulse->play_tone("out", 440));
        setup = {.arguments = {"--audio", "--audio-parity"}, .environment = pulse->environment()};
        setup.environment.emplace_back("OX_DEBUG_DROP_PCT=20");
    }
    Agent agent(setup);
    Options options = options_for(agent.port_base());
    options.audio = lossy;
    options.codec = lossy ? Codec::H264 : Codec::Hevc;
    options.seconds = lossy ? 30 : 1.5;
    options.save_stream = folder.file("stream.mkv");
    options.save_frame = folder.file("frame.png");
    options.bitrate_changes = {{.kbps = 1234, .at_seconds = 0.3}};
    int seconds_with_pictures = 0;
    bool enough = false;  // losses are random
    const auto on_progress = [&](const Progress& progress) {
        if (progress.fps > 0) ++seconds_with_pictures;
        enough = lossy && progress.frames_lost > 0 && progress.packets_recovered > 0 &&
                 seconds_with_pictures >= 3;
    };
    Session session(
        options, [&] { return enough; }, on_progress);
    const Summary summary = session.run();
    ASSERT_EQ(summary.status, ExitStatus::Ok) << summary.error;
    EXPECT_TRUE(agent.wait_for_log("Session: set_settings bitrate=1234kbps"));
    EXPECT_TRUE(agent.wait_for_log("VideoEncoder: reconfigure bitrate → 1234kbps (re-init "));
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: client_end_session"));

    const ReceiveStats& stream = summary.receive.stream;
    const DecodeStats& decode = summary.decode;
    const StampChecker::Report& stamps = summary.outputs.stamps;
    EXPECT_EQ(enough, lossy) << stream.assembly.packets_recovered << " packets recovered";
    EXPECT_EQ(stream.assembly.frames_lost > 0, lossy);
    EXPECT_EQ(stream.keyframe_requests > 0, lossy);
    EXPECT_EQ(stream.undecryptable, 0U);
    EXPECT_EQ(decode.frames_decoded + stream.frames_withheld + summary.receive.queue_drops,
              stream.assembly.frames_complete);
    EXPECT_GE(decode.frames_decoded, 3U);
    EXPECT_EQ(stamps.read, decode.frames_decoded);
    EXPECT_EQ(decode.decode_errors + stamps.invented + stamps.out_of_order, 0U);
    EXPECT_GT(summary.rtt_ms, 0.0);
    const auto json = nlohmann::json::parse(to_json(summary));
    EXPECT_EQ(json["result"], "ok");
    EXPECT_GT(json["latency_ms"]["samples"], 0);

    const MediaFile recording = read_file(options.save_stream);
    const auto& [codec, times] = recording.tracks[0];
    EXPECT_EQ(codec, codec_id(options.codec));
    EXPECT_EQ(recording.pictures, static_cast<int>(decode.frames_decoded));
    ASSERT_EQ(times.size(), decode.frames_decoded);
    EXPECT_TRUE(std::ranges::is_sorted(times));
    EXPECT_GT(times.back(), 500) << "of more than a second";
    EXPECT_EQ(stamp_of(*recording.last, 1), stamps.last);
    const MediaFile png = read_file(options.save_frame);
    ASSERT_EQ(png.pictures, 1);
    EXPECT_EQ(png.last->width, options.width);
    EXPECT_EQ(stamp_of(*png.last, 3), stamps.last);
    if (lossy) expect_the_tone(summary, recording);
}

TEST(LauncherSession, WithSoundAndLossesIsRepairedDecodedCountedAndSaved) {
    expect_all_of_a_session(true);
}

TEST(LauncherSession, InHevcIsDecodedCountedAndSaved) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "x265, built without ThreadSanitizer, stalls";
#endif
    expect_all_of_a_session(false);
}

TEST(LauncherFailures, HaveAStatusEach) {
    silence_libav();
    Agent agent;
    Options options = options_for(agent.port_base());
    const auto expect = [&](ExitStatus status, const std::string& error) {
        const Summary summary = Session(options, nullptr, [&](const Progress&) {
                                    agent.process().signal(SIGTERM);
                                }).run();
        EXPECT_EQ(summary.status, status) << summary.error;
        EXPECT_NE(summary.error.find(error), std::string::npos) << summary.error;
    };
    // Local failures come before the connection to the agent.
    options.save_stream = "/nonexistent/stream.mkv";
    expect(ExitStatus::Failed, "No such file");
    options.save_stream.clear();
    EXPECT_EQ(agent.log().count("client connected"), 0U);

    options.token = "wrong";
    expect(ExitStatus::Rejected, "token rejected");
    EXPECT_TRUE(agent.wait_for_log("Standalone session ended: handshake_failed:AUTH_REJECTED"));
    options.token = test::kToken;
    options.no_end = true;
    options.seconds = 0.1;
    expect(ExitStatus::Ok, "");
    EXPECT_TRUE(agent.wait_for_log("launcher lost — holding the session"));
    options.seconds = 0;
    expect(ExitStatus::AgentEnded, "the agent ended the session");
    EXPECT_EQ(agent.process().wait(kPatience), 0);
    options.connect_timeout_s = 0.2;
    expect(ExitStatus::Refused, "Connection refused");
    const UniqueFd mute = test::bound_socket(SOCK_STREAM, agent.control_port());
    expect(ExitStatus::TimedOut, "");
}

}  // namespace
}  // namespace ox::launcher
