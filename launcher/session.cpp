#include "launcher/session.h"

#include <algorithm>
#include <utility>

#include "base/sleep.h"
#include "launcher/client/control_messages.h"
#include "launcher/client/feedback_packets.h"

namespace ox::launcher {

namespace {

constexpr std::chrono::milliseconds kTick{20};
constexpr std::chrono::seconds kReportPeriod{1};
constexpr size_t kQueuedFrames = 60;

SteadyClock::time_point after(double seconds) {
    return SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                    std::chrono::duration<double>(seconds));
}

Options with_changes_in_order(Options options) {
    std::ranges::stable_sort(options.bitrate_changes, {}, &BitrateChange::at_seconds);
    return options;
}

std::string seconds_text(double seconds) {
    std::string text = std::to_string(seconds);
    return text.substr(0, text.find('.') + 2) + " s";
}

}  // namespace

Session::Session(const Options& options, StopPredicate stop, ProgressSink progress)
    : options_(with_changes_in_order(options)),
      stop_(std::move(stop)),
      progress_(std::move(progress)),
      outputs_(options),
      queue_(kQueuedFrames),
      decode_(queue_, {.picture = [this](const auto& picture) { outputs_.on_picture(picture); },
                       .frame = [this](const auto& frame) { outputs_.on_frame(frame); }}),
      next_idr_s_(options.request_idr_every_s) {
    summary_.codec = options.codec;
    summary_.stamps_checked = options.check_stamps;
    summary_.audio_wanted = options.audio;
}

void Session::fail(ExitStatus status, std::string error) {
    if (summary_.status != ExitStatus::Ok) return;
    summary_.status = status;
    summary_.error = std::move(error);
}

Summary Session::run() {
    if (open_outputs() && connect()) {
        stream();
        finish();
    }
    return summary_;
}

// Local failures come before the connection to the agent.
bool Session::open_outputs() {
    std::string error;
    if (!parse_input_script(options_.input_script, input_steps_, error)) {
        fail(ExitStatus::Usage, error);
        return false;
    }
    const auto audio_port = static_cast<uint16_t>(options_.local_port + 1);
    const bool opened =
        socket_.open(options_.local_port, error, options_.local_ip) &&
        (!options_.audio || audio_socket_.open(audio_port, error, options_.local_ip)) &&
        decode_.open(options_.codec, error) && outputs_.open(error);
    if (!opened) fail(ExitStatus::Failed, error);
    return opened;
}

bool Session::connect() {
    const std::string auth = make_auth_line({.token = options_.token,
                                             .codec = options_.codec,
                                             .width = options_.width,
                                             .height = options_.height,
                                             .fps = options_.fps,
                                             .bitrate_kbps = options_.bitrate_kbps,
                                             .udp_ip = options_.udp_ip});
    const auto control_port = static_cast<uint16_t>(options_.port_base + 3);
    control_.set_local_ip(options_.local_ip);
    switch (control_.connect(options_.host, control_port, auth, after(options_.connect_timeout_s),
                             stop_)) {
        case ConnectResult::Ready:
            break;
        case ConnectResult::Refused:
        case ConnectResult::UnknownHost:
            fail(ExitStatus::Refused, control_.error());
            return false;
        case ConnectResult::Rejected:
            fail(ExitStatus::Rejected, control_.error());
            return false;
        case ConnectResult::NoAnswer:
        case ConnectResult::BadAnswer:
            fail(ExitStatus::TimedOut, control_.error());
            return false;
        case ConnectResult::Stopped:
            fail(ExitStatus::TimedOut, "stopped before the agent answered");
            return false;
    }
    return start_media();
}

bool Session::start_media() {
    const SessionKeySet& keys = control_.keys();
    std::string error;
    if (!input_.open(control_.agent_ip(), static_cast<uint16_t>(options_.port_base + 2),
                     std::span(keys.input_key).first<InputSealer::kKeyBytes>(), error)) {
        fail(ExitStatus::Failed, error);
        return false;
    }
    socket_.set_agent(control_.agent_ip(), static_cast<uint16_t>(options_.port_base + 4));
    receive_.emplace(socket_, queue_, std::span(keys.video_key).first<PacketOpener::kKeyBytes>(),
                     VideoReceiver::Config{.limits = {}, .decode_damaged = options_.decode_damaged},
                     [this](const KeyframeRequest& request) { request_keyframe(request); });
    return !options_.audio || start_audio();
}

// The input port is faster, but an agent without input has it closed. The agent counts a request
// that arrives twice once.
void Session::request_keyframe(const KeyframeRequest& request) {
    if (!options_.no_feedback)
        input_.send(request.lost ? make_lost_frames_request(*request.lost)
                                 : make_keyframe_request());
    control_.send_line(kRequestIdrLine);
}

bool Session::start_audio() {
    audio_socket_.set_agent(control_.agent_ip(), static_cast<uint16_t>(options_.port_base + 5));
    const Secret& key = control_.keys().audio_key;
    audio_.emplace(
        audio_socket_, std::span(key).first<PacketOpener::kKeyBytes>(),
        AudioWorker::Sinks{
            .frame = [this](const auto& frame) { outputs_.on_audio(frame); },
            .samples = [this](const auto& pcm, const auto&) { outputs_.on_samples(pcm); }});
    std::string error;
    if (audio_->start(error)) return true;
    fail(ExitStatus::Failed, error);
    return false;
}

void Session::stream() {
    decode_.start();
    receive_->start();
    control_.send_ping();
    media_deadline_ = after(options_.media_timeout_s);
    auto next_report = SteadyClock::now() + kReportPeriod;
    auto next_tick = SteadyClock::now();
    for (;;) {
        next_tick += kTick;
        sleep_until_steady(next_tick);
        const auto now = SteadyClock::now();
        const ReceiveSnapshot receive = receive_->snapshot();
        if (!may_continue(receive, now)) return;
        if (receive.stream.first_media_us != 0) {
            const auto media_us = steady_now_us() - receive.stream.first_media_us;
            send_due_requests(static_cast<double>(media_us) / 1e6);
            send_due_input(static_cast<double>(media_us) / 1e6);
        }
        if (now >= next_report) {
            next_report += kReportPeriod;
            if (!report(receive)) return;
        }
    }
}

bool Session::may_continue(const ReceiveSnapshot& receive, SteadyClock::time_point now) {
    const ReceiveStats& stream = receive.stream;
    if (stop_ && stop_()) return false;
    if (receive.broken) {
        fail(ExitStatus::Failed, "the UDP socket failed");
        return false;
    }
    if (stream.packets != last_packets_) {
        last_packets_ = stream.packets;
        media_deadline_ = after(options_.media_timeout_s);
    }
    const double media_seconds =
        stream.first_media_us == 0
            ? 0.0
            : static_cast<double>(steady_now_us() - stream.first_media_us) / 1e6;
    if (options_.seconds > 0 && media_seconds >= options_.seconds) return false;
    if (!control_.is_connected()) {
        fail(ExitStatus::AgentEnded,
             "the agent ended the session after " + seconds_text(media_seconds));
        return false;
    }
    if (now < media_deadline_) return true;
    if (stream.packets > 0) {
        fail(ExitStatus::TimedOut, "media stopped after " + seconds_text(media_seconds));
    } else if (stream.undecryptable > 0) {
        fail(ExitStatus::TimedOut, std::to_string(stream.undecryptable) +
                                       " datagrams came, but none that the session's key opens");
    } else {
        fail(ExitStatus::TimedOut,
             "no media came within " + seconds_text(options_.media_timeout_s));
    }
    return false;
}

void Session::send_due_requests(double media_seconds) {
    const auto& changes = options_.bitrate_changes;
    while (next_bitrate_change_ < changes.size() &&
           media_seconds >= changes[next_bitrate_change_].at_seconds)
        control_.send_line(make_set_bitrate_line(changes[next_bitrate_change_++].kbps));
    if (options_.request_idr_every_s > 0 && media_seconds >= next_idr_s_) {
        next_idr_s_ = media_seconds + options_.request_idr_every_s;
        control_.send_line(kRequestIdrLine);
    }
}

void Session::send_due_input(double media_seconds) {
    const auto elapsed = std::chrono::duration<double>(media_seconds);
    while (next_input_step_ < input_steps_.size() && elapsed >= input_steps_[next_input_step_].at)
        input_.send(input_steps_[next_input_step_++].packet);
}

bool Session::report(const ReceiveSnapshot& receive) {
    const DecodeStats decode = decode_.stats();
    const Progress progress = meter_.update(receive, decode, control_.rtt_ms(), steady_now_us());
    control_.send_line(make_stats_line({.rtt_ms = progress.rtt_ms,
                                        .packet_loss_pct = progress.loss_pct,
                                        .decoded_fps = progress.fps,
                                        .jitter_ms = receive.stream.jitter_ms}));
    if (!options_.no_feedback)
        input_.send(make_media_feedback({.loss_pct = progress.loss_pct,
                                         .rtt_ms = progress.rtt_ms,
                                         .decoded_fps = progress.fps,
                                         .keyframe_wanted = receive.stream.awaiting_keyframe}));
    control_.send_ping();
    if (progress_) progress_(progress);
    return decode.frames_decoded > 0 || progress.seconds < options_.media_timeout_s;
}

void Session::finish() {
    if (!options_.no_end) control_.send_line(kEndSessionLine);
    control_.close();
    receive_->stop();
    if (audio_) {
        audio_->stop();
        summary_.audio = audio_->snapshot();
    }
    queue_.close();
    decode_.join();
    std::string error;
    const bool saved = outputs_.finish(error);
    summary_.receive = receive_->snapshot();
    summary_.decode = decode_.stats();
    summary_.outputs = outputs_.results();
    summary_.rtt_ms = control_.rtt_ms();
    summary_.input = input_.counters();
    const ReceiveStats& stream = summary_.receive.stream;
    if (summary_.decode.frames_decoded > 0) {
        if (!saved) fail(ExitStatus::Failed, error);
    } else if (stream.assembly.frames_complete == 0) {
        fail(ExitStatus::TimedOut, "stopped before a whole frame came");
    } else {
        // Outranks the way in which the session ended.
        summary_.status = ExitStatus::Undecodable;
        summary_.error = "none of " + std::to_string(stream.assembly.frames_complete) +
                         " frames could be decoded (" + std::to_string(stream.keyframes) +
                         " keyframes, " + std::to_string(summary_.decode.decode_errors) +
                         " refused by the decoder)";
    }
}

}  // namespace ox::launcher
