#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "video/capture.h"
#include "video/portal/portal_limits.h"
#include "video/portal/restore_token.h"

namespace ox {

/// Pictures of a monitor of a Wayland desktop: asks the desktop portal for it over the session bus,
/// which may show the user an approval dialog, and receives it through PipeWire. A token that the
/// portal gives out is kept in a file and spares the dialog the next time.
///
/// A frame lends the newest picture (its fourth bytes are the desktop's own) and carries no time;
/// the same picture is lent again until a new one comes, also when the desktop has gone. Its size
/// follows the monitor's.
class PortalCapture final : public ICapture {
  public:
    struct Config {
        std::string bus_address{};  ///< of the session bus; empty for the environment's
        RestoreTokenFile token_file = RestoreTokenFile::of_user();
        PortalLimits limits{};
        /// Asked every 50 ms while `init` waits: true ends it, without success. May be empty.
        std::function<bool()> cancelled{};
    };
    /// The user's token file and `OX_PORTAL_TIMEOUT_MS`.
    static Config config_from_environment();

    explicit PortalCapture(Config config);
    ~PortalCapture() override;

    /// Returns when the first picture is there, or false after an error line. Blocks for as long as
    /// the limits allow.
    bool init() override;
    int capture_frame(CapturedFrame& frame) override;
    [[nodiscard]] uint32_t width() const override;
    [[nodiscard]] uint32_t height() const override;
    [[nodiscard]] ChangeTimes* changes() override;
    void shutdown() override;

  private:
    struct Share;

    [[nodiscard]] bool cancelled() const { return config_.cancelled && config_.cancelled(); }
    bool wait_for_first_frame(const Share& share, bool by_token) const;

    Config config_;
    std::unique_ptr<Share> share_;  ///< null while nothing is captured
};

}  // namespace ox
