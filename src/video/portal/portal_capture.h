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

/// Pictures of a monitor of a Wayland desktop: asks the desktop portal for it over the session bus,
/// which may show the user an approval dialog, and receives it through PipeWire. A token that the
/// portal gives out is kept in a file and spares the dialog the next time.
///
/// A frame lends the newest picture (its fourth bytes are the desktop's own) and carries no time;
/// the same picture is lent again until a new one comes, also when the desktop has gone: that the
/// share is over only `state` tells. A share that the user has stopped takes the token with it, so
/// that the next one has to be approved. Its size follows the monitor's.
class PortalCapture final : public ICapture {
  public:
    struct Config {
        std::string bus_address{};  ///< of the session bus; empty for the environment's
        RestoreTokenFile token_file = RestoreTokenFile::of_user();
        PortalLimits limits{};
        /// Asked every 50 ms while `init` waits: true ends it, without success. May be empty.
        std::function<bool()> cancelled{};
        /// Told by `init` when the user is being asked, and when no longer. May be empty.
        std::function<void(bool)> awaiting_owner{};
        std::string wayland_display{};  ///< of the compositor; empty: it is not listened to
    };
    /// The user's token file and `OX_PORTAL_TIMEOUT_MS`.
    static Config config_from_environment();

    explicit PortalCapture(Config config);
    ~PortalCapture() override;

    /// Returns when the first picture is there, or false after an error line. Blocks for as long as
    /// the limits allow.
    bool init() override;
    int capture_frame(CapturedFrame& frame) override;
    CaptureState state() override;
    [[nodiscard]] bool black() const override { return black_frames_.is_black(); }
    [[nodiscard]] uint32_t width() const override;
    [[nodiscard]] uint32_t height() const override;
    [[nodiscard]] ChangeTimes* changes() override;
    void shutdown() override;

  private:
    struct Share;

    std::unique_ptr<Share> open_share();
    void watch_for_black(const CapturedFrame& frame);

    [[nodiscard]] bool cancelled() const { return config_.cancelled && config_.cancelled(); }
    bool wait_for_first_frame(const Share& share, bool by_token) const;

    Config config_;
    std::unique_ptr<Share> share_;  ///< null while nothing is captured
    CaptureState without_share_ = CaptureState::Gone;
    BlackFrameDetector black_frames_;
};

}  // namespace ox
