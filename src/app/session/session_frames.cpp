// The frame loop of a session.
#include <algorithm>

#include "app/board_reports.h"
#include "app/session/session.h"
#include "app/session/stream_settings.h"
#include "base/sleep.h"
#include "log/log.h"
#include "saas/saas_connector.h"
#include "scheduling/kernel_scheduling.h"

namespace ox {
namespace {
constexpr std::chrono::seconds kMetricsPeriod{2};
constexpr std::chrono::seconds kPlatformReportPeriod{10};
}  // namespace

Session::MaybeEnd Session::stream_frames() {
    bool was_lost = false;
    while (!requested_end()) {
        const bool lost = !control_.is_connected();
        // Release the keys that the lost launcher still holds.
        if (lost && !was_lost) input_.release_pressed();
        was_lost = lost;
        if (lost && options_.reconnect_grace_s > 0) {
            if (const MaybeEnd end = hold_for_launcher()) return end;
        } else if (const MaybeEnd end = stream_one_frame()) {
            return end;
        }
    }
    return std::nullopt;
}

Session::MaybeEnd Session::stream_one_frame() {
    if (!capture_.look_after(SteadyClock::now())) return EndReason::capture_failed;
    feedback_.keyframes().apply(SteadyClock::now());
    apply_bitrate_request();
    if (!wait_for_next_frame()) return std::nullopt;
    if (!capture_picture()) {
        OX_WARN("Session: capture_frame failed with no cached frame — ending");
        return EndReason::capture_failed;
    }
    const auto number = numbers_->video.take();
    if (!number) {
        OX_ERROR("Session: all frame numbers of this key are used up — ending");
        return EndReason::no_video_key;
    }
    // The new destination has seen none of the frames so far.
    if (video_.sender().take_moved()) feedback_.keyframes().force_now();
    if (feedback_.keyframes().take_forced()) encoder_.force_idr = true;
    encoded_.data.clear();
    encoded_.frame_id = *number;
    if (!encoder_.encode_bgra(picture_.pixels(), picture_.width, picture_.height,
                              picture_.timestamp, encoded_, picture_.content)) {
        OX_WARN("Session: encode failed — ending");
        return EndReason::encode_failed;
    }
    if (!encoded_.data.empty()) {
        if (encoded_.keyframe) feedback_.keyframes().sent(SteadyClock::now());
        video_.send(encoded_);
    }
    ++frames_;
    run_periodic_tasks();
    return std::nullopt;
}

void Session::apply_bitrate_request() {
    const uint32_t requested_kbps = requested_bitrate_.exchange(0);
    if (requested_kbps == 0) return;
    const std::vector<pid_t> threads_before = threads_of_process();
    const std::string name_before = encoder_.name();
    if (!encoder_.reconfigure_bitrate(std::min(requested_kbps, kMaxBitrateKbps))) return;
    raised_.raise_since(threads_before);
    // Never pace below the lowest usable bitrate.
    video_.sender().set_pacing_rate(
        pacing_rate_bps(std::max(encoder_.bitrate_kbps(), kMinBitrateKbps)));
    if (encoder_.name() != name_before) report_encoder_change(encoder_.name());
}

bool Session::wait_for_next_frame() {
    if (ChangeTimes* changes = capture_->changes()) {
        changes->take([this](SteadyClock::time_point at) { phase_.changed(at); });
        pacer_.shift(phase_.step(pacer_.upcoming()));
    }
    const auto deadline = pacer_.next_deadline();
    if (!sleep_until_or(deadline, [this] { return requested_end().has_value(); })) return false;
    pacer_.arrived(SteadyClock::now());
    return true;
}

bool Session::capture_picture() {
    const bool captured = capture_->capture_frame(picture_) == 0;
    if (!captured && picture_.empty()) return false;
    // A repeated picture, or one whose backend has no timestamp, counts as captured now.
    if (!captured || picture_.timestamp == 0) picture_.timestamp = steady_now_us();
    return true;
}

void Session::run_periodic_tasks() {
    const auto now = SteadyClock::now();
    if (now - sample_.at >= kMetricsPeriod) {
        if (request_.leases != nullptr) request_.leases->top_up(*numbers_);
        report_metrics(now);
    }
    if (platform() != nullptr && now - platform_report_ >= kPlatformReportPeriod) {
        report_to_platform(now);
    }
}

void Session::report_metrics(SteadyClock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - sample_.at).count();
    const uint64_t bytes = video_.sender().bytes_sent();
    const double mbps = static_cast<double>(bytes - sample_.bytes) * 8.0 / 1e6 / seconds;
    const double fps = static_cast<double>(frames_ - sample_.frames) / seconds;
    sample_ = {.at = now, .frames = frames_, .bytes = bytes};
    report_stream_metrics(mbps, fps, feedback_.rtt_ms(), feedback_.loss_pct());
}

void Session::report_to_platform(SteadyClock::time_point now) {
    platform_report_ = now;
    const float seconds = std::chrono::duration<float>(now - stream_start_).count();
    const float fps = seconds > 0.0F ? static_cast<float>(frames_) / seconds : 0.0F;
    // The negotiated bitrate, whatever the launcher has set since.
    platform()->send_session_stats(request_.session_id, fps,
                                   static_cast<float>(settings_.bitrate_kbps), feedback_.rtt_ms(),
                                   feedback_.loss_pct(), seconds);
}

}  // namespace ox
