#pragma once

#include <chrono>

namespace ox {

/// How long each step on the way to the first picture may take. The defaults are what a user in
/// front of an approval dialog needs; with a saved token nobody is asked, unless the portal does
/// not know it, which shows in that there is no answer after a moment. Then the token goes with the
/// first time-out, and the next session waits for as long as without one.
struct PortalLimits {
    std::chrono::milliseconds create_session{30'000};
    std::chrono::milliseconds select_sources{60'000};
    std::chrono::milliseconds start_with_token{20'000};
    std::chrono::milliseconds start_without_token{45'000};
    /// After that long without an answer somebody is being asked.
    std::chrono::milliseconds dialog_with_token{3'000};
    std::chrono::milliseconds dialog_without_token{300};
    std::chrono::milliseconds open_remote{10'000};
    std::chrono::milliseconds first_frame_with_token{10'000};
    std::chrono::milliseconds first_frame_without_token{30'000};

    [[nodiscard]] std::chrono::milliseconds start(bool with_token) const {
        return with_token ? start_with_token : start_without_token;
    }
    [[nodiscard]] std::chrono::milliseconds dialog(bool with_token) const {
        return with_token ? dialog_with_token : dialog_without_token;
    }
    [[nodiscard]] std::chrono::milliseconds first_frame(bool with_token) const {
        return with_token ? first_frame_with_token : first_frame_without_token;
    }
};

/// The defaults; `start_timeout_ms`, a decimal number above 0 (else it is ignored; may be null),
/// replaces both limits of the Start call.
PortalLimits portal_limits(const char* start_timeout_ms);

}  // namespace ox
