#pragma once

#include <chrono>

namespace ox {

/// How long each step to the first picture may take; a user has time for the dialog. A token spares
/// it, unless the portal does not know it: then the answer is missing, and the token is deleted.
struct PortalLimits {
    std::chrono::milliseconds create_session{30'000};
    std::chrono::milliseconds select_sources{60'000};
    std::chrono::milliseconds start_with_token{20'000};
    std::chrono::milliseconds start_without_token{45'000};
    /// After that long without an answer a dialog is assumed.
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

}  // namespace ox
