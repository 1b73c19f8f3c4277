#include "launcher/report.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace ox::launcher {

namespace {

using Json = nlohmann::json;

double span_seconds(uint64_t from_us, uint64_t to_us) {
    return to_us > from_us ? static_cast<double>(to_us - from_us) / 1e6 : 0.0;
}

double to_ms(uint64_t us) {
    return static_cast<double>(us) / 1000.0;
}

Json latency_json(const LatencyHistogram& latency) {
    if (latency.samples() == 0) return nullptr;
    return {{"min", to_ms(latency.min_us())},
            {"mean", latency.mean_us() / 1000.0},
            {"p50", to_ms(latency.percentile_us(50))},
            {"p90", to_ms(latency.percentile_us(90))},
            {"p99", to_ms(latency.percentile_us(99))},
            {"max", to_ms(latency.max_us())},
            {"samples", latency.samples()}};
}

Json stamps_json(const StampChecker::Report& stamps) {
    return {{"read", stamps.read},
            {"unreadable", stamps.unreadable},
            {"first", stamps.first},
            {"last", stamps.last},
            {"out_of_order", stamps.out_of_order},
            {"invented", stamps.invented}};
}

Json audio_json(const Summary& summary) {
    const AudioSnapshot& audio = summary.audio;
    const AudioStats& stream = audio.stream;
    return {{"packets", stream.packets},
            {"data_packets", stream.data_packets},
            {"repair_packets", stream.repair_packets},
            {"packets_per_s", summary.audio_packets_per_s()},
            {"frame_bytes", summary.audio_frame_bytes()},
            {"duplicates", stream.duplicates},
            {"late", stream.late},
            {"malformed", stream.malformed},
            {"undecryptable", stream.undecryptable},
            {"kernel_drops", audio.kernel_drops},
            {"packets_lost", stream.frames.repaired + stream.frames.lost},
            {"frames_repaired", stream.frames.repaired},
            {"frames_lost", stream.frames.lost},
            {"frames_decoded", audio.frames_decoded},
            {"frames_concealed", audio.frames_concealed},
            {"frames_recorded", summary.outputs.recorded.audio_frames},
            {"decode_errors", audio.decode_errors},
            {"first_sequence", stream.first_sequence},
            {"last_sequence", stream.last_sequence},
            {"seconds", audio.seconds},
            {"jitter_ms", stream.jitter_ms},
            {"level_dbfs", summary.outputs.sound.level_dbfs},
            {"peak_dbfs", summary.outputs.sound.peak_dbfs},
            {"pitch_hz", summary.outputs.sound.pitch_hz}};
}

__attribute__((format(printf, 2, 3))) void append(std::string& text, const char* format, ...) {
    std::array<char, 256> line{};
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, one line above
    std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    text += line.data();
}

void append_latency(std::string& text, const char* name, const LatencyHistogram& latency) {
    if (latency.samples() == 0) {
        append(text, "%s unknown (the agent runs on another clock)\n", name);
        return;
    }
    append(text, "%s p50 %.1f ms, p99 %.1f ms, max %.1f ms (%llu frames)\n", name,
           to_ms(latency.percentile_us(50)), to_ms(latency.percentile_us(99)),
           to_ms(latency.max_us()), static_cast<unsigned long long>(latency.samples()));
}

void append_audio(std::string& text, const Summary& summary) {
    using Count = unsigned long long;
    const AudioSnapshot& audio = summary.audio;
    const AudioCounters& frames = audio.stream.frames;
    if (audio.stream.packets == 0) {
        append(text, "sound      none came\n");
        return;
    }
    append(text, "sound      Opus 48 kHz stereo, %.1f s, %.1f packets/s of %.0f bytes\n",
           audio.seconds, summary.audio_packets_per_s(), summary.audio_frame_bytes());
    append(text, "           %llu frames decoded, %llu lost, %llu repaired, %llu errors\n",
           Count{audio.frames_decoded}, Count{frames.lost}, Count{frames.repaired},
           Count{audio.decode_errors});
    if (summary.outputs.sound.pitch_hz > 0)
        append(text, "           level %.1f dBFS, peak %.1f dBFS, strongest pitch %.1f Hz\n",
               summary.outputs.sound.level_dbfs, summary.outputs.sound.peak_dbfs,
               summary.outputs.sound.pitch_hz);
    else
        append(text, "           silent\n");
}

}  // namespace

const char* exit_status_name(ExitStatus status) {
    switch (status) {
        case ExitStatus::Ok:
            return "ok";
        case ExitStatus::Failed:
            return "failed";
        case ExitStatus::Usage:
            return "usage";
        case ExitStatus::Refused:
            return "refused";
        case ExitStatus::Rejected:
            return "rejected";
        case ExitStatus::TimedOut:
            return "timeout";
        case ExitStatus::Undecodable:
            return "undecodable";
        case ExitStatus::AgentEnded:
            return "agent_ended";
    }
    return "failed";
}

double Summary::seconds() const {
    return span_seconds(receive.stream.first_media_us, receive.stream.last_media_us);
}

double Summary::mbit_per_s() const {
    const double time = seconds();
    return time > 0 ? static_cast<double>(receive.stream.bytes) * 8.0 / 1e6 / time : 0.0;
}

double Summary::fps() const {
    const double time = span_seconds(decode.first_decoded_us, decode.last_decoded_us);
    return time > 0 ? static_cast<double>(decode.frames_decoded - 1) / time : 0.0;
}

double Summary::loss_pct() const {
    const AssemblyCounters& counters = receive.stream.assembly;
    if (counters.packets_expected == 0) return 0.0;
    return 100.0 * static_cast<double>(counters.packets_lost) /
           static_cast<double>(counters.packets_expected);
}

double Summary::audio_packets_per_s() const {
    const AudioStats& stream = audio.stream;
    const double time = span_seconds(stream.first_media_us, stream.last_media_us);
    return time > 0 ? static_cast<double>(stream.data_packets) / time : 0.0;
}

double Summary::audio_frame_bytes() const {
    const AudioStats& stream = audio.stream;
    return stream.data_packets == 0
               ? 0.0
               : static_cast<double>(stream.data_bytes) / static_cast<double>(stream.data_packets);
}

std::string to_json(const Summary& summary) {
    const ReceiveStats& stream = summary.receive.stream;
    const AssemblyCounters& assembly = stream.assembly;
    const DecodeStats& decode = summary.decode;
    Json json = {
        {"result", exit_status_name(summary.status)},
        {"exit_status", static_cast<int>(summary.status)},
        {"error", summary.error},
        {"codec", summary.codec == Codec::Hevc ? "hevc" : "h264"},
        {"width", decode.width},
        {"height", decode.height},
        {"seconds", summary.seconds()},
        {"fps", summary.fps()},
        {"mbit_per_s", summary.mbit_per_s()},
        {"bytes", stream.bytes},
        {"packets", stream.packets},
        {"data_packets", stream.data_packets},
        {"repair_packets", stream.repair_packets},
        {"duplicates", stream.duplicates},
        {"late", stream.late},
        {"malformed", stream.malformed},
        {"undecryptable", stream.undecryptable},
        {"kernel_drops", summary.receive.kernel_drops},
        {"packets_expected", assembly.packets_expected},
        {"packets_lost", assembly.packets_lost},
        {"packets_recovered", assembly.packets_recovered},
        {"loss_pct", summary.loss_pct()},
        {"frames_complete", assembly.frames_complete},
        {"frames_repaired", assembly.frames_repaired},
        {"frames_lost", assembly.frames_lost},
        {"frames_withheld", stream.frames_withheld},
        {"frames_queue_dropped", summary.receive.queue_drops},
        {"frames_decoded", decode.frames_decoded},
        {"frames_recorded", summary.outputs.recorded.frames},
        {"decode_errors", decode.decode_errors},
        {"first_frame_id", decode.first_frame_id},
        {"last_frame_id", decode.last_frame_id},
        {"keyframes", stream.keyframes},
        {"keyframe_requests", stream.keyframe_requests},
        {"input_events_sent", summary.input.events},
        {"feedback_sent",
         {{"keyframe_requests", summary.input.keyframe_requests},
          {"lost_frames_requests", summary.input.lost_frames_requests},
          {"media_feedback", summary.input.media_feedback}}},
        {"jitter_ms", stream.jitter_ms},
        {"rtt_ms", summary.rtt_ms},
        {"latency_ms", latency_json(decode.latency)},
        {"arrival_latency_ms", latency_json(decode.arrival_latency)},
    };
    if (summary.audio_wanted) json["audio"] = audio_json(summary);
    if (summary.stamps_checked) json["stamps"] = stamps_json(summary.outputs.stamps);
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string to_text(const Summary& summary) {
    const ReceiveStats& stream = summary.receive.stream;
    const AssemblyCounters& assembly = stream.assembly;
    const DecodeStats& decode = summary.decode;
    const StampChecker::Report& stamps = summary.outputs.stamps;
    using Count = unsigned long long;
    std::string text;
    append(text, "video      %s %ux%u, %.1f s, %.1f fps, %.2f Mbit/s\n",
           summary.codec == Codec::Hevc ? "HEVC" : "H.264", decode.width, decode.height,
           summary.seconds(), summary.fps(), summary.mbit_per_s());
    append(text, "frames     %llu decoded, %llu lost, %llu repaired, %llu withheld, %llu errors\n",
           Count{decode.frames_decoded}, Count{assembly.frames_lost},
           Count{assembly.frames_repaired}, Count{stream.frames_withheld},
           Count{decode.decode_errors});
    append(text, "packets    %llu received, %llu lost (%.2f %%), %llu recovered, %llu late\n",
           Count{stream.packets}, Count{assembly.packets_lost}, summary.loss_pct(),
           Count{assembly.packets_recovered}, Count{stream.late});
    append(text, "keyframes  %llu received, %llu asked for after losses\n", Count{stream.keyframes},
           Count{stream.keyframe_requests});
    if (summary.input.events > 0)
        append(text, "input      %llu events sent\n", Count{summary.input.events});
    append(text, "network    rtt %.2f ms, jitter %.2f ms\n", summary.rtt_ms, stream.jitter_ms);
    append_latency(text, "latency    capture to decoded", decode.latency);
    append_latency(text, "           capture to arrival", decode.arrival_latency);
    if (summary.audio_wanted) append_audio(text, summary);
    if (summary.stamps_checked)
        append(text,
               "stamps     %llu read (%u to %u), %llu unreadable, %llu out of order, "
               "%llu invented\n",
               Count{stamps.read}, stamps.first, stamps.last, Count{stamps.unreadable},
               Count{stamps.out_of_order}, Count{stamps.invented});
    return text;
}

std::string to_text(const Progress& progress) {
    std::array<char, 200> line{};
    std::snprintf(line.data(), line.size(),
                  "%4.0f s  %5.1f fps  %6.2f Mbit/s  lost %llu (%.1f %%)  recovered %llu  "
                  "frames lost %llu  latency %.1f ms  rtt %.1f ms",
                  progress.seconds, progress.fps, progress.mbit_per_s,
                  static_cast<unsigned long long>(progress.packets_lost), progress.loss_pct,
                  static_cast<unsigned long long>(progress.packets_recovered),
                  static_cast<unsigned long long>(progress.frames_lost), progress.latency_p50_ms,
                  progress.rtt_ms);
    return line.data();
}

}  // namespace ox::launcher
