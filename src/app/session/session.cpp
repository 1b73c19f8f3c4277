#include "app/session/run_session.h"

#include <algorithm>
#include <utility>

#include "app/board_reports.h"
#include "app/memory_trim.h"
#include "app/process_flags.h"
#include "app/session/session.h"
#include "app/session/session_board.h"
#include "app/session/stream_settings.h"
#include "base/sleep.h"
#include "log/log.h"
#include "saas/saas_connector.h"
#include "scheduling/kernel_scheduling.h"
#include "tui/board/board.h"

namespace ox {
namespace {

constexpr int kAudioPortOffset = 1;
constexpr int kInputPortOffset = 2;
constexpr int kControlPortOffset = 3;
constexpr int kVideoLocalPortOffset = 4;
constexpr int kAudioLocalPortOffset = 5;
constexpr int kProbeWaitSeconds = 5;
/// A launcher that has its keys is not kept waiting for the disk.
constexpr std::chrono::seconds kLeaseWait{2};

}  // namespace

Session::Session(const Options& options, SessionRequest request)
    : options_(options),
      request_(std::move(request)),
      audio_(options, [this] { return stop_requested(); }),
      capture_(options, [this](bool withheld) { input_.withhold(withheld); }),
      pacer_(1, SteadyClock::now()),
      phase_(1) {}

Session::~Session() = default;

uint16_t Session::port(int offset) const {
    return static_cast<uint16_t>(options_.port_base + offset);
}

uint16_t Session::control_port() const {
    return session_control_port(options_);
}

SaasConnector* Session::platform() const {
    return request_.session_id.empty() ? nullptr : request_.connector;
}

int64_t Session::streamed_seconds() const {
    return std::chrono::duration_cast<std::chrono::seconds>(SteadyClock::now() - stream_start_)
        .count();
}

bool Session::stop_requested() const {
    return shutdown_flag() || (request_.terminate_requested && *request_.terminate_requested);
}

bool Session::leave_requested() const {
    return stop_requested() || signals_.end_requested || panic_flag();
}

void Session::lease_numbers() {
    const auto& key = request_.key_material;
    // A key of any other length is not used: the session's keys are random then, and new.
    if (request_.leases != nullptr && key.size() == Encryption::kKeyBytes) {
        numbers_ = request_.leases->lease(key);
    } else {
        numbers_ = std::make_shared<StreamNumbers>();
        numbers_->video.add(0, PacketNumbers::kEnd);
        numbers_->audio.add(0, PacketNumbers::kEnd);
    }
    audio_.set_numbers(numbers_->audio);
}

std::string Session::wait_for_launcher() {
    control_.master_key = std::move(request_.key_material);
    control_.expected_token_sha256 = request_.expected_token_sha256;
    control_.host_caps = host_caps(options_.media_rfi);
    control_.on_listen = report_control_port;
    // A launcher may send its only probe as soon as it has its keys.
    control_.before_ready = [this] {
        video_.sender().reserve(port(kVideoLocalPortOffset));
        audio_.reserve(port(kAudioLocalPortOffset));
    };
    const bool accepted = control_.accept_and_handshake(
        control_port(), [this] { return stop_requested(); }, 0);
    control_.before_ready = nullptr;
    if (!accepted) return "handshake_failed:" + control_.last_error;
    awake_.emplace();
    launcher_ = control_.remote_address();
    if (launcher_.empty()) {
        OX_ERROR("Session: no UDP destination (no TCP peer?) — aborting");
        return "no_udp_dest";
    }
    const auto& asked = control_.requested;
    OX_INFO("Session start: dest=%s codec=%d %dx%d@%dfps %dkbps", launcher_.c_str(), asked.codec,
            asked.width, asked.height, asked.fps, asked.bitrate);
    session_board::launcher_authenticated(request_.session_id, launcher_);
    return {};
}

std::string Session::take_numbers() {
    if (request_.leases != nullptr) {
        request_.leases->await(*numbers_, kLeaseWait, [this] { return stop_requested(); });
    }
    const auto first = numbers_->video.peek();
    if (!first) {
        if (!stop_requested())
            OX_ERROR("Session: all frame numbers of this key are used up — refusing to stream");
        return end_reason("no_video_key");
    }
    if (*first != 0) {
        OX_INFO("Session: this key was used before — frame numbers go on at %u, audio at %u",
                *first, numbers_->audio.peek().value_or(0));
    }
    return {};
}

std::string Session::open_media() {
    if (!video_.open(launcher_, port(0), port(kVideoLocalPortOffset))) return "udp_open_failed";
    video_.sender().start_probe_listener();
    audio_.open(launcher_, port(kAudioPortOffset), port(kAudioLocalPortOffset));
    audio_.start(control_.keys.audio_key);
    return {};
}

void Session::expect_media_probes() {
    launcher_ = control_.remote_address();
    const std::string& peer = control_.tcp_remote_ip;
    video_.sender().expect_return(peer, launcher_, port(0));
    audio_.expect_return(peer, launcher_, port(kAudioPortOffset));
}

void Session::start_input() {
    const Secret& key = control_.keys.input_key;
    if (!options_.input || key.empty()) return;
    input_.set_feedback_callback([this](const InputPacket& packet) {
        feedback_.handle(packet, static_cast<int64_t>(steady_now_us()));
    });
    if (!input_.set_key(key.data(), key.size())) return;
    const bool started = input_.start(port(kInputPortOffset));
    report_bound_port(port(kInputPortOffset), input_.bind_error());
    if (started) tui::board().input_device(input_.device_error());
}

void Session::start_control() {
    control_.message_callback = [this](const std::string& type) {
        if (type == "request_idr") {
            request_keyframe(signals_, static_cast<int64_t>(steady_now_us()));
        } else if (type == "end_session") {
            OX_INFO("Session: launcher requested end_session");
            signals_.end_requested = true;
        }
    };
    control_.settings_callback = [this](const SettingsChange& change) {
        if (change.bitrate <= 0) return;
        OX_INFO("Session: set_settings bitrate=%dkbps", change.bitrate);
        signals_.pending_bitrate = static_cast<uint32_t>(change.bitrate);
    };
    control_.stats_callback = [this](const ClientStats& stats) {
        constexpr int64_t kFeedbackCountsUs = 2'000'000;
        const int64_t feedback = signals_.last_media_feedback_us;
        const auto now = static_cast<int64_t>(steady_now_us());
        if (feedback != 0 && now - feedback < kFeedbackCountsUs) return;
        signals_.rtt_ms = stats.rtt_ms;
        signals_.loss_pct = stats.packet_loss_pct;
        signals_.decoded_fps = stats.decoded_fps;
    };
    if (options_.media_rfi) {
        OX_INFO(
            "Session: P5 RFI handling on (granted caps=0x%x); media wire is unchanged unless a "
            "certified backend grants CAP_RFI",
            control_.granted_caps);
    }
    control_.start_async_read();
}

std::string Session::open_capture() {
    const auto& asked = control_.requested;
    // After an earlier panic stop a session is set up as ever and ends with its first frame.
    const bool was_panic = panic_flag();
    const auto cancelled = [this, was_panic] {
        return stop_requested() || signals_.end_requested || (panic_flag() && !was_panic);
    };
    if (capture_.open(static_cast<uint32_t>(std::max(asked.width, 0)),
                      static_cast<uint32_t>(std::max(asked.height, 0)), cancelled)) {
        return {};
    }
    return leave_requested() ? end_reason("capture_failed") : "capture_failed";
}

std::string Session::open_encoder() {
    constexpr int32_t kAv1 = 2;
    if (control_.requested.codec == kAv1) {
        OX_WARN("Session: launcher asked for AV1 — not supported here, using H.264");
    }
    settings_ = encoder_settings(control_.requested, options_.encoder);
    const std::vector<pid_t> threads_before = threads_of_process();
    if (!encoder_.init(settings_)) {
        OX_ERROR("Session: no usable encoder for %s", codec_name(settings_.codec));
        tui::board().raise(tui::Alert::EncoderFailed, 0);
        return "encoder_failed";
    }
    tui::board().clear(tui::Alert::EncoderFailed);
    raised_.raise_since(threads_before);
    if (options_.media_rfi && !encoder_.can_invalidate_refs()) {
        OX_WARN(
            "Session: P5 RFI enabled but the active backend has no reference invalidation — "
            "CAP_RFI answers 0, the IDR path is unchanged");
    }
    return {};
}

std::string Session::announce_stream() {
    if (!video_.set_key(control_.keys.video_key)) {
        OX_ERROR("Session: no video session key — refusing to stream");
        return "no_video_key";
    }
    // A panic stop or the launcher's goodbye is as good a reason not to wait as a shutdown.
    video_.sender().wait_for_probe(kProbeWaitSeconds, [this] { return leave_requested(); });

    if (SaasConnector* connector = platform()) {
        connector->send_session_ready(request_.session_id, "0.0.0.0", port(0),
                                      port(kAudioPortOffset), port(kInputPortOffset));
    }

    const auto now = SteadyClock::now();
    stream_start_ = now;
    mark_ = {.at = now};
    platform_report_ = now;
    pacer_ = FramePacer(settings_.fps, now);
    phase_ = FramePhase(settings_.fps);
    video_.sender().set_pacing_rate(pacing_rate_bps(settings_.bitrate_kbps));
    OX_INFO("Streaming: %s %ux%u@%ufps %ukbps → %s:%u (encoder=%s)", codec_name(settings_.codec),
            settings_.width, settings_.height, settings_.fps, settings_.bitrate_kbps,
            launcher_.c_str(), port(0), encoder_.name().c_str());
    session_board::streaming(settings_, encoder_label(encoder_.name()));
    return {};
}

std::string Session::set_up() {
    lease_numbers();
    std::string reason = wait_for_launcher();
    if (reason.empty()) reason = take_numbers();
    if (reason.empty()) reason = open_media();
    if (!reason.empty()) return reason;
    start_input();
    start_control();
    reason = open_capture();
    if (reason.empty()) reason = open_encoder();
    if (reason.empty()) reason = announce_stream();
    return reason;
}

std::string Session::end_reason(const std::string& loop_reason) const {
    if (panic_flag()) return "merchant_panic";
    if (shutdown_flag()) return "shutdown";
    if (signals_.end_requested) return "client_end_session";
    if (request_.terminate_requested && *request_.terminate_requested) return "saas_terminated";
    return loop_reason.empty() ? "disconnect" : loop_reason;
}

void Session::log_summary(const std::string& reason) const {
    const auto count = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    const UdpSender& sender = video_.sender();
    OX_INFO(
        "Session end (%s): %llu frames in %llds, UDP %llu pkts / %llu B, pacing sleeps=%llu "
        "overruns=%llu",
        reason.c_str(), count(frames_), static_cast<long long>(streamed_seconds()),
        count(sender.packets_sent()), count(sender.bytes_sent()), count(sender.pacing_sleeps()),
        count(sender.pacing_overruns()));
    OX_INFO(
        "Session end: media feedback %llu packet(s), %llu forced keyframe(s), %llu request(s) "
        "answered by a keyframe already in flight",
        count(input_.feedback()), count(keyframes_.forced()), count(signals_.answered_in_flight));
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
    std::string reason = set_up();
    if (reason.empty()) {
        trim_memory();
        reason = end_reason(stream_frames());
        streamed_seconds_out = static_cast<unsigned>(streamed_seconds());
        log_summary(reason);
    }
    tear_down();
    return {.reason = reason,
            .could_not_listen = control_.failure == HandshakeFailure::cannot_listen};
}

SessionEnd run_session(const Options& options, SessionRequest request,
                       std::atomic<unsigned>& streamed_seconds) {
    SessionEnd end = Session(options, std::move(request)).run(streamed_seconds);
    // The agent idles for hours between sessions: what pictures and encoder took goes back to the
    // games.
    trim_memory();
    return end;
}

uint16_t session_control_port(const Options& options) {
    return static_cast<uint16_t>(options.port_base + kControlPortOffset);
}

}  // namespace ox
