#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "video/black_frame_detector.h"
#include "video/capture.h"
#include "video/portal/portal_limits.h"
#include "video/portal/restore_token.h"

namespace ox {

/// Pictures of a monitor from the desktop portal and PipeWire. The user may be asked to approve; a
/// saved token replaces the dialog the next time and is deleted when the user stops the share. A
/// frame lends the newest picture, without a time, also after the share has ended: see `state`.
/// after the share has ended: see `state`. Its size follows the monitor's.
class PortalCapture final : public ICapture {
  public:
    struct Config {
        std::string bus_address{};  ///< of the session bus; empty: the environment's
        RestoreTokenFile token_file = RestoreTokenFile::of_user();
        PortalLimits limits{};
        /// May be empty. Called every 50 ms while `init` waits: true makes it fail.
        std::function<bool()> cancelled{};
        /// May be empty. Called by `init`; true: the user is being asked, false: no longer.
        std::function<void(bool)> on_awaiting_owner{};
        std::string wayland_display{};  ///< of the compositor; empty: not watched
    };
    /// The user's token file and `OX_PORTAL_TIMEOUT_MS`.
    static Config config_from_environment();

    explicit PortalCapture(Config config);
    ~PortalCapture() override;

    /// Waits for the first picture, up to the limits. False after an error line.
    bool init() override;
    int capture_frame(CapturedFrame& frame) override;
    CaptureState state() override;
    [[nodiscard]] bool is_black() const override { return black_frames_.is_black(); }
    [[nodiscard]] uint32_t width() const override;
    [[nodiscard]] uint32_t height() const override;
    [[nodiscard]] ChangeTimes* changes() override;
    void shutdown() override;

  private:
    struct Share;

    std::unique_ptr<Share> open_share();
    void check_for_black(const CapturedFrame& frame);

    [[nodiscard]] bool cancelled() const { return config_.cancelled && config_.cancelled(); }
    bool wait_for_first_frame(const Share& share, bool by_token) const;

    Config config_;
    std::unique_ptr<Share> share_;  ///< null while nothing is captured
    CaptureState failure_state_ = CaptureState::Gone;
    BlackFrameDetector black_frames_;
};

}  // namespace ox
