#include "video/portal/portal_capture.h"

#include <charconv>
#include <utility>

#include "base/clock.h"
#include "base/environment.h"
#include "log/log.h"
#include "video/portal/compositor_watch.h"
#include "video/portal/latest_picture.h"
#include "video/portal/pipewire_stream.h"
#include "video/portal/portal_bus.h"
#include "video/portal/portal_diagnosis.h"
#include "video/portal/screen_cast.h"
#include "video/portal/share_watch.h"

namespace ox {
namespace {

/// `OX_PORTAL_TIMEOUT_MS`, a decimal number above 0 (else ignored), replaces both limits of Start.
PortalLimits limits_from_environment() {
    PortalLimits limits;
    const std::string_view text = environment("OX_PORTAL_TIMEOUT_MS");
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc{} && end == text.data() + text.size() && number > 0) {
        limits.start_with_token = limits.start_without_token = std::chrono::milliseconds(number);
    }
    return limits;
}

CaptureState state_after(portal::ShareFailure failure) {
    switch (failure) {
        case portal::ShareFailure::Declined:
            return CaptureState::OwnerDeclined;
        case portal::ShareFailure::Unanswered:
            return CaptureState::OwnerAbsent;
        case portal::ShareFailure::Other:
            break;
    }
    return CaptureState::Gone;
}

}  // namespace

/// One running screen share. Destroyed in reverse order: the stream, the portal's session, the bus.
struct PortalCapture::Share {
    using Verdict = portal::ShareWatch::Verdict;

    explicit Share(const Config& config)
        : compositor(config.wayland_display),
          bus(config.cancelled),
          screen_cast(bus, config.token_file, config.limits, config.on_awaiting_owner) {}

    Verdict update(SteadyClock::time_point now);
    void disturbed(const char* cause, SteadyClock::time_point now);

    CompositorWatch compositor;
    portal::PortalBus bus;
    portal::ScreenCast screen_cast;
    LatestPicture pictures;
    PipewireStream stream{pictures};
    portal::ShareWatch watch;
    const char* end_cause = "the stream has stopped";  ///< for the log
    bool end_logged = false;
};

/// Processes what happened to the share since the last call.
portal::ShareWatch::Verdict PortalCapture::Share::update(SteadyClock::time_point now) {
    switch (compositor.take_event()) {
        case CompositorWatch::Event::None:
            break;
        case CompositorWatch::Event::MonitorChanged:
            disturbed("a monitor has changed", now);
            break;
        case CompositorWatch::Event::CompositorEnded:
            disturbed("the compositor has ended", now);
            break;
    }
    const portal::PortalBus::SessionEvents events = bus.take_events(screen_cast.session());
    if (events.service_gone) disturbed("a part of the desktop portal has ended", now);
    if (events.confirmed) watch.session_confirmed();
    if (events.closed) watch.session_closed(now);
    const bool stalled = stream.stalled(now);
    watch.stream_state(stream.streaming() && !stalled, now);
    if (stream.daemon_lost()) disturbed("PipeWire has ended", now);
    if (stalled) disturbed("no picture came in the new format", now);
    if (watch.should_query_session(now)) bus.query_session(screen_cast.session());
    return watch.verdict(now);
}

void PortalCapture::Share::disturbed(const char* cause, SteadyClock::time_point now) {
    end_cause = cause;
    watch.disturbance(now);
}

PortalCapture::Config PortalCapture::config_from_environment() {
    return {.limits = limits_from_environment(), .wayland_display = "wayland-0"};
}

PortalCapture::PortalCapture(Config config) : config_(std::move(config)) {}

PortalCapture::~PortalCapture() = default;

bool PortalCapture::init() {
    shutdown();
    failure_state_ = CaptureState::Gone;
    share_ = open_share();
    return share_ != nullptr;
}

std::unique_ptr<PortalCapture::Share> PortalCapture::open_share() {
    auto share = std::make_unique<Share>(config_);
    std::string error;
    if (!share->bus.open(config_.bus_address, error)) {
        if (cancelled()) {
            OX_INFO("PortalCapture: connecting to the session bus cancelled");
        } else {
            OX_ERROR("PortalCapture: no session bus: %s", error.c_str());
            portal::log_diagnosis(portal::diagnose_no_bus());
        }
        return nullptr;
    }
    auto shared = share->screen_cast.share_monitor();
    if (const auto* failure = std::get_if<portal::ShareFailure>(&shared)) {
        failure_state_ = state_after(*failure);
        return nullptr;
    }
    auto& screen = std::get<portal::SharedScreen>(shared);
    if (!share->stream.start(std::move(screen.remote), screen.node)) return nullptr;
    if (!wait_for_first_frame(*share, screen.by_token)) return nullptr;
    OX_INFO("PortalCapture: streaming %ux%u (node=%u)", share->pictures.width(),
            share->pictures.height(), screen.node);
    // Events from before the share started do not count.
    share->compositor.take_event();
    return share;
}

bool PortalCapture::wait_for_first_frame(const Share& share, bool by_token) const {
    const auto deadline = SteadyClock::now() + config_.limits.first_frame(by_token);
    if (share.pictures.wait_for_first(deadline,
                                      [&] { return share.stream.ended() || cancelled(); })) {
        return true;
    }
    if (cancelled()) {
        OX_INFO("PortalCapture: waiting for the first frame cancelled");
    } else {
        OX_ERROR(
            "PortalCapture: no frame arrived — screen sharing was not approved, or the compositor "
            "stopped the capture");
    }
    return false;
}

int PortalCapture::capture_frame(CapturedFrame& frame) {
    if (!share_ || !share_->pictures.get(frame)) return 1;
    check_for_black(frame);
    return 0;
}

void PortalCapture::check_for_black(const CapturedFrame& frame) {
    const size_t row_bytes = size_t{frame.width} * 4;
    if (!black_frames_.observe(frame.pixels(), row_bytes, row_bytes, frame.height)) return;
    OX_WARN(
        "PortalCapture: 120 all-black frames — the desktop shows nothing. The screen may be locked "
        "or asleep: unlock the PC.");
}

CaptureState PortalCapture::state() {
    using Verdict = portal::ShareWatch::Verdict;
    if (!share_) return failure_state_;
    const auto verdict = share_->update(SteadyClock::now());
    switch (verdict) {
        case Verdict::Runs:
        case Verdict::Paused:
            return CaptureState::Live;
        case Verdict::Closing:
            return CaptureState::Doubtful;
        case Verdict::Lost:
        case Verdict::Stopped:
            break;
    }
    const bool lost = verdict == Verdict::Lost;
    if (!std::exchange(share_->end_logged, true)) {
        if (lost) {
            OX_WARN("PortalCapture: the screen share has ended (%s) — the last picture stays",
                    share_->end_cause);
        } else {
            OX_WARN("PortalCapture: the screen share was stopped at the PC");
            config_.token_file.remove();
        }
    }
    return lost ? CaptureState::Lost : CaptureState::OwnerStopped;
}

uint32_t PortalCapture::width() const {
    return share_ ? share_->pictures.width() : 0;
}

uint32_t PortalCapture::height() const {
    return share_ ? share_->pictures.height() : 0;
}

ChangeTimes* PortalCapture::changes() {
    return share_ ? &share_->pictures.arrivals() : nullptr;
}

void PortalCapture::shutdown() {
    share_.reset();
}

}  // namespace ox
