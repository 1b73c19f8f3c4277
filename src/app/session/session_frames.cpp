// The frame loop of a session.
#include <algorithm>

#include "app/process_flags.h"
#include "app/session/session.h"
#include "app/session/session_board.h"
#include "app/session/stream_settings.h"
#include "base/sleep.h"
#include "log/log.h"
#include "saas/saas_connector.h"
#include "scheduling/kernel_scheduling.h"

namespace ox {
namespace {
constexpr std::chrono::seconds kFigurePeriod{2};
constexpr std::chrono::seconds kPlatformReportPeriod{10};
}  // namespace

std::string Session::stream_frames() {
    bool was_lost = false;
    while (!leave_requested()) {
        const bool lost = !control_.is_connected();
        // What it held down, the owner of the PC would type with.
        if (lost && !was_lost) input_.release_pressed();
        was_lost = lost;
        if (lost && options_.reconnect_grace_s > 0) {
            std::string reason = hold_for_launcher();
            if (!reason.empty()) return reason;
            continue;
        }
        std::string reason = stream_one_frame();
        if (!reason.empty()) return reason;
    }
    return {};
}

std::string Session::stream_one_frame() {
    if (!capture_.look_after(SteadyClock::now())) return "capture_failed";
    apply_requests();
    if (!wait_for_next_frame()) return {};
    if (!capture_picture()) {
        OX_WARN("Session: capture_frame failed with no cached frame — ending");
        return "capture_failed";
    }
    const auto number = numbers_->video.take();
    if (!number) {
        OX_ERROR("Session: all frame numbers of this key are used up — ending");
        return "no_video_key";
    }
    // What was sent before a probe moved the stream went elsewhere.
    if (video_.sender().take_moved()) encoder_.force_idr = true;
    encoded_.data.clear();
    encoded_.frame_id = *number;
    if (!encoder_.encode_bgra(picture_.pixels(), picture_.width, picture_.height,
                              picture_.timestamp, encoded_, picture_.content)) {
        OX_WARN("Session: encode failed — ending");
        return "encode_failed";
    }
    if (!encoded_.data.empty()) {
        if (encoded_.keyframe) {
            signals_.keyframe_requested = false;
            keyframes_.keyframe_sent();
            signals_.last_keyframe_sent_us = static_cast<int64_t>(steady_now_us());
        }
        video_.send(encoded_);
    }
    ++frames_;
    report_figures();
    report_to_platform();
    return {};
}

void Session::apply_requests() {
    const bool requested = signals_.keyframe_requested.exchange(false);
    if (keyframes_.should_force(requested, SteadyClock::now())) encoder_.force_idr = true;

    const uint32_t asked_kbps = signals_.pending_bitrate.exchange(0);
    if (asked_kbps == 0) return;
    const uint32_t kbps = std::min(asked_kbps, kMaxBitrateKbps);
    const std::vector<pid_t> threads_before = threads_of_process();
    const std::string name_before = encoder_.name();
    if (!encoder_.reconfigure_bitrate(kbps)) return;
    raised_.raise_since(threads_before);
    // Slower, pacing would hold back what no encoder can make smaller.
    video_.sender().set_pacing_rate(
        pacing_rate_bps(std::max(encoder_.bitrate_kbps(), kMinBitrateKbps)));
    if (encoder_.name() != name_before) session_board::encoder(encoder_label(encoder_.name()));
}

bool Session::wait_for_next_frame() {
    if (ChangeTimes* changes = capture_->changes()) {
        changes->take([this](SteadyClock::time_point at) { phase_.changed(at); });
        pacer_.shift(phase_.step(pacer_.upcoming()));
    }
    const auto deadline = pacer_.next_deadline();
    if (!sleep_until_or(deadline, [this] { return leave_requested(); })) return false;
    pacer_.arrived(SteadyClock::now());
    return true;
}

bool Session::capture_picture() {
    const bool captured = capture_->capture_frame(picture_) == 0;
    if (!captured && picture_.empty()) return false;
    // A picture that is shown again, or whose backend knows no time, is as old as this moment.
    if (!captured || picture_.timestamp == 0) picture_.timestamp = steady_now_us();
    return true;
}

void Session::report_figures() {
    const auto now = SteadyClock::now();
    if (now - mark_.at < kFigurePeriod) return;
    if (request_.leases != nullptr) request_.leases->top_up(*numbers_);
    const double seconds = std::chrono::duration<double>(now - mark_.at).count();
    const uint64_t bytes = video_.sender().bytes_sent();
    const double mbps = static_cast<double>(bytes - mark_.bytes) * 8.0 / 1e6 / seconds;
    const double fps = static_cast<double>(frames_ - mark_.frames) / seconds;
    mark_ = {.at = now, .frames = frames_, .bytes = bytes};
    session_board::figures(mbps, fps, signals_.rtt_ms, signals_.loss_pct);
}

void Session::report_to_platform() {
    const auto now = SteadyClock::now();
    SaasConnector* connector = platform();
    if (connector == nullptr || now - platform_report_ < kPlatformReportPeriod) return;
    platform_report_ = now;
    const float seconds = std::chrono::duration<float>(now - stream_start_).count();
    const float fps = seconds > 0.0F ? static_cast<float>(frames_) / seconds : 0.0F;
    // The bitrate the stream was agreed with, whatever the launcher has set since.
    connector->send_session_stats(request_.session_id, fps,
                                  static_cast<float>(settings_.bitrate_kbps), signals_.rtt_ms,
                                  signals_.loss_pct, seconds);
}

}  // namespace ox
