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

/// Pictures of a monitor of a Wayland desktop: requested from the desktop portal over the session
/// bus, which may show the user an approval dialog, and received through PipeWire. The portal's
/// token is saved in a file and replaces the dialog the next time; it is deleted when the user
/// stops the share.
///
/// A frame lends the newest picture, without a time, again and again until a new one comes, also
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

    /// Returns with the first picture, or false after an error line. Blocks as long as the limits
    /// allow.
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
