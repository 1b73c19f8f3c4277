#include "video/portal/portal_capture.h"

#include <cstdlib>
#include <utility>

#include "base/clock.h"
#include "log/log.h"
#include "video/portal/latest_picture.h"
#include "video/portal/pipewire_stream.h"
#include "video/portal/portal_bus.h"
#include "video/portal/portal_diagnosis.h"
#include "video/portal/screen_cast.h"

namespace ox {

/// One running screen share. Goes in the reverse order: the stream, the portal's session, the bus.
struct PortalCapture::Share {
    explicit Share(const Config& config)
        : bus(config.cancelled), screen_cast(bus, config.token_file, config.limits) {}

    portal::PortalBus bus;
    portal::ScreenCast screen_cast;
    LatestPicture pictures;
    PipewireStream stream{pictures};
};

PortalCapture::Config PortalCapture::config_from_environment() {
    return {.limits = portal_limits(std::getenv("OX_PORTAL_TIMEOUT_MS"))};
}

PortalCapture::PortalCapture(Config config) : config_(std::move(config)) {}

PortalCapture::~PortalCapture() = default;

bool PortalCapture::init() {
    shutdown();
    auto share = std::make_unique<Share>(config_);
    std::string error;
    if (!share->bus.open(config_.bus_address, error)) {
        if (cancelled()) {
            OX_INFO("PortalCapture: connecting to the session bus cancelled");
        } else {
            OX_ERROR("PortalCapture: no session bus: %s", error.c_str());
            portal::explain(portal::diagnose_no_bus());
        }
        return false;
    }
    auto screen = share->screen_cast.share_monitor();
    if (!screen || !share->stream.start(std::move(screen->remote), screen->node)) return false;
    if (!wait_for_first_frame(*share, screen->by_token)) return false;
    OX_INFO("PortalCapture: streaming %ux%u (node=%u)", share->pictures.width(),
            share->pictures.height(), screen->node);
    share_ = std::move(share);
    return true;
}

bool PortalCapture::wait_for_first_frame(const Share& share, bool by_token) const {
    const auto deadline = SteadyClock::now() + config_.limits.first_frame(by_token);
    if (share.pictures.wait_for_first(deadline,
                                      [&] { return share.stream.over() || cancelled(); })) {
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
    return share_ && share_->pictures.get(frame) ? 0 : 1;
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
