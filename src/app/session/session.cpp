#include "app/session/session.h"

#include <algorithm>
#include <utility>

#include "app/board_reports.h"
#include "app/memory_trim.h"
#include "app/process_flags.h"
#include "app/session/stream_settings.h"
#include "base/sleep.h"
#include "log/log.h"
#include "saas/saas_connector.h"
#include "scheduling/kernel_scheduling.h"

namespace ox {
namespace {

constexpr int kProbeWaitSeconds = 5;
/// A slow disk must not keep a launcher waiting that has its keys.
constexpr std::chrono::seconds kLeaseWait{2};

std::shared_ptr<StreamNumbers> lease_numbers(const SessionRequest& request) {
    const auto& key = request.key_material;
    // A key of any other length is not used: the session's keys are random then, and new.
    if (request.leases != nullptr && key.size() == Encryption::kKeyBytes) {
        return request.leases->lease(key);
    }
    auto numbers = std::make_shared<StreamNumbers>();
    numbers->video.add(0, PacketNumbers::kEnd);
    numbers->audio.add(0, PacketNumbers::kEnd);
    return numbers;
}

}  // namespace

Session::Session(const Options& options, SessionRequest request)
    : options_(options),
      request_(std::move(request)),
      numbers_(lease_numbers(request_)),
      video_({.local = port(SessionPort::video), .launcher = port(SessionPort::launcher_video)}),
      audio_(options,
             {.local = port(SessionPort::audio), .launcher = port(SessionPort::launcher_audio)},
             numbers_->audio, [this] { return stop_requested(); }),
      capture_(options, [this](bool withheld) { input_.withhold(withheld); }),
      pacer_(1, SteadyClock::now()),
      phase_(1) {}

Session::~Session() = default;

SaasConnector* Session::platform() const {
    return request_.session_id.empty() ? nullptr : request_.connector;
}

int64_t Session::streamed_seconds() const {
    return std::chrono::duration_cast<std::chrono::seconds>(SteadyClock::now() - stream_start_)
        .count();
}

bool Session::stop_requested() const {
    return shutdown_flag() || terminate_requested();
}

Session::MaybeEnd Session::requested_end() const {
    if (panic_flag()) return EndReason::merchant_panic;
    if (shutdown_flag()) return EndReason::shutdown;
    if (end_requested_) return EndReason::client_end_session;
    if (terminate_requested()) return EndReason::saas_terminated;
    return std::nullopt;
}

Session::MaybeEnd Session::set_up() {
    if (const MaybeEnd end = wait_for_launcher()) return end;
    if (const MaybeEnd end = await_numbers()) return end;
    if (const MaybeEnd end = open_media()) return end;
    start_input();
    start_control();
    if (const MaybeEnd end = open_capture()) return end;
    if (const MaybeEnd end = open_encoder()) return end;
    return start_stream();
}

Session::MaybeEnd Session::wait_for_launcher() {
    control_.master_key = std::move(request_.key_material);
    control_.expected_token_sha256 = request_.expected_token_sha256;
    control_.host_caps = host_caps(options_.media_rfi);
    control_.on_listen = report_control_port;
    control_.before_ready = [this] { prepare_media_ports(); };
    control_.on_message = [this](const ControlMessage& message) { handle_message(message); };
    if (!control_.accept_and_handshake(
            port(SessionPort::control), [this] { return stop_requested(); }, 0)) {
        return EndReason::handshake_failed;
    }
    awake_.emplace();
    launcher_ = control_.remote_address();
    if (launcher_.empty()) {
        OX_ERROR("Session: no UDP destination (no TCP peer?) — aborting");
        return EndReason::no_udp_dest;
    }
    const RequestedStream& requested = control_.requested;
    OX_INFO("Session start: dest=%s codec=%d %dx%d@%dfps %dkbps", launcher_.c_str(),
            requested.codec, requested.width, requested.height, requested.fps, requested.bitrate);
    report_launcher(request_.session_id, launcher_);
    return std::nullopt;
}

/// In every handshake, right before the launcher gets its keys: it may send its only probe then.
void Session::prepare_media_ports() {
    if (launcher_.empty()) {
        video_.reserve();
        audio_.reserve();
        return;
    }
    launcher_ = control_.remote_address();
    video_.expect_return(control_.tcp_remote_ip, launcher_);
    audio_.expect_return(control_.tcp_remote_ip, launcher_);
}

Session::MaybeEnd Session::await_numbers() {
    if (request_.leases != nullptr) {
        request_.leases->await(*numbers_, kLeaseWait, [this] { return stop_requested(); });
    }
    const auto first = numbers_->video.peek();
    if (!first) {
        if (!stop_requested())
            OX_ERROR("Session: all frame numbers of this key are used up — refusing to stream");
        return requested_end().value_or(EndReason::no_video_key);
    }
    if (*first != 0) {
        OX_INFO("Session: this key was used before — frame numbers go on at %u, audio at %u",
                *first, numbers_->audio.peek().value_or(0));
    }
    return std::nullopt;
}

Session::MaybeEnd Session::open_media() {
    if (!video_.open(launcher_)) return EndReason::udp_open_failed;
    audio_.open(launcher_);
    audio_.start(control_.keys.audio_key);
    return std::nullopt;
}

void Session::start_input() {
    const Secret& key = control_.keys.input_key;
    if (!options_.input || key.empty()) return;
    input_.set_feedback_callback(
        [this](const InputPacket& packet) { feedback_.handle(packet, SteadyClock::now()); });
    if (!input_.set_key(key.data(), key.size())) return;
    const bool started = input_.start(port(SessionPort::input));
    report_bound_port(port(SessionPort::input), input_.bind_error());
    if (started) tui::board().input_device(input_.device_error());
}

void Session::start_control() {
    if (options_.media_rfi) {
        OX_INFO(
            "Session: P5 RFI handling on (granted caps=0x%x); media wire is unchanged unless a "
            "certified backend grants CAP_RFI",
            control_.granted_caps);
    }
    control_.start_async_read();
}

/// On the control channel's reader thread.
void Session::handle_message(const ControlMessage& message) {
    if (std::holds_alternative<RequestIdr>(message)) {
        feedback_.request_keyframe(SteadyClock::now());
    } else if (std::holds_alternative<EndSession>(message)) {
        OX_INFO("Session: launcher requested end_session");
        end_requested_ = true;
    } else if (const auto* change = std::get_if<SettingsChange>(&message)) {
        if (change->bitrate <= 0) return;
        OX_INFO("Session: set_settings bitrate=%dkbps", change->bitrate);
        requested_bitrate_ = static_cast<uint32_t>(change->bitrate);
    } else if (const auto* stats = std::get_if<ClientStats>(&message)) {
        feedback_.handle(*stats, SteadyClock::now());
    }
}

Session::MaybeEnd Session::open_capture() {
    const RequestedStream& requested = control_.requested;
    // After an earlier panic stop a session is set up as ever and ends with its first frame.
    const bool was_panic = panic_flag();
    const auto cancelled = [this, was_panic] {
        return stop_requested() || end_requested_ || (panic_flag() && !was_panic);
    };
    if (capture_.open(static_cast<uint32_t>(std::max(requested.width, 0)),
                      static_cast<uint32_t>(std::max(requested.height, 0)), cancelled)) {
        return std::nullopt;
    }
    return requested_end().value_or(EndReason::capture_failed);
}

Session::MaybeEnd Session::open_encoder() {
    constexpr int32_t kAv1 = 2;
    if (control_.requested.codec == kAv1 && !codec_numbered(kAv1)) {
        OX_WARN("Session: launcher asked for AV1 — not supported here, using H.264");
    }
    settings_ = encoder_settings(control_.requested, options_.encoder);
    const std::vector<pid_t> threads_before = threads_of_process();
    if (!encoder_.init(settings_)) {
        OX_ERROR("Session: no usable encoder for %s", codec_name(settings_.codec));
        report_encoder_available(false);
        return EndReason::encoder_failed;
    }
    report_encoder_available(true);
    raised_.raise_since(threads_before);
    if (options_.media_rfi && !encoder_.can_invalidate_refs()) {
        OX_WARN(
            "Session: P5 RFI enabled but the active backend has no reference invalidation — "
            "CAP_RFI answers 0, the IDR path is unchanged");
    }
    return std::nullopt;
}

Session::MaybeEnd Session::start_stream() {
    if (!video_.set_key(control_.keys.video_key)) {
        OX_ERROR("Session: no video session key — refusing to stream");
        return EndReason::no_video_key;
    }
    video_.sender().wait_for_probe(kProbeWaitSeconds,
                                   [this] { return requested_end().has_value(); });

    if (SaasConnector* connector = platform()) {
        connector->send_session_ready(request_.session_id, "0.0.0.0",
                                      port(SessionPort::launcher_video),
                                      port(SessionPort::launcher_audio), port(SessionPort::input));
    }

    const auto now = SteadyClock::now();
    stream_start_ = now;
    sample_ = {.at = now};
    platform_report_ = now;
    pacer_ = FramePacer(settings_.fps, now);
    phase_ = FramePhase(settings_.fps);
    video_.sender().set_pacing_rate(pacing_rate_bps(settings_.bitrate_kbps));
    OX_INFO("Streaming: %s %ux%u@%ufps %ukbps → %s:%u (encoder=%s)", codec_name(settings_.codec),
            settings_.width, settings_.height, settings_.fps, settings_.bitrate_kbps,
            launcher_.c_str(), port(SessionPort::launcher_video), encoder_.name().c_str());
    report_streaming(settings_, encoder_.name());
    return std::nullopt;
}

void Session::log_summary(const SessionEnd& end) const {
    const auto count = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    const UdpSender& sender = video_.sender();
    const KeyframeRequests& keyframes = feedback_.keyframes();
    OX_INFO(
        "Session end (%s): %llu frames in %llds, UDP %llu pkts / %llu B, pacing sleeps=%llu "
        "overruns=%llu",
        to_string(end).c_str(), count(frames_), static_cast<long long>(streamed_seconds()),
        count(sender.packets_sent()), count(sender.bytes_sent()), count(sender.pacing_sleeps()),
        count(sender.pacing_overruns()));
    OX_INFO(
        "Session end: media feedback %llu packet(s), %llu forced keyframe(s), %llu request(s) "
        "answered by a keyframe already in flight",
        count(input_.feedback()), count(keyframes.forced()), count(keyframes.answered_in_flight()));
    if (options_.media_rfi) {
        const FeedbackHandler::RfiCounters rfi = feedback_.rfi_counters();
        OX_INFO("Session end: P5 RFI requests=%llu valid=%llu idr_fallbacks=%llu supported=%d — %s",
                count(rfi.requests), count(rfi.valid), count(rfi.idr_fallbacks),
                encoder_.can_invalidate_refs() ? 1 : 0, encoder_.rfi_status());
    }
}

void Session::tear_down() {
    input_.stop();
    encoder_.shutdown();
    capture_.shutdown();
    video_.close();
    audio_.close();
    control_.close();
}

SessionEnd Session::run(std::atomic<unsigned>& streamed_seconds_out) {
    use_minimal_timer_slack();
    SessionEnd end;
    if (const MaybeEnd failed = set_up()) {
        end = {.reason = *failed, .handshake = control_.failure};
    } else {
        trim_memory();
        const MaybeEnd loop_end = stream_frames();
        end = {.reason = requested_end().value_or(loop_end.value_or(EndReason::disconnect)),
               .handshake = control_.failure};
        streamed_seconds_out = static_cast<unsigned>(streamed_seconds());
        log_summary(end);
    }
    tear_down();
    return end;
}

SessionEnd run_session(const Options& options, SessionRequest request,
                       std::atomic<unsigned>& streamed_seconds) {
    SessionEnd end = Session(options, std::move(request)).run(streamed_seconds);
    // The agent may idle for hours now: give the memory of pictures and encoder back to the system.
    trim_memory();
    return end;
}

uint16_t session_port(const Options& options, SessionPort port) {
    return static_cast<uint16_t>(options.port_base + static_cast<int>(port));
}

}  // namespace ox
