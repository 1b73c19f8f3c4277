#include "video/portal/portal_diagnosis.h"

#include <string_view>

#include "log/log.h"

namespace ox::portal {
namespace {

constexpr const char* kInstallBackend =
    "install xdg-desktop-portal and its part for this desktop (xdg-desktop-portal-gnome, -kde, "
    "-wlr, -hyprland), then log in again";

Diagnosis diagnose_refused(std::string_view error) {
    const auto is = [&](std::string_view name) {
        return error.starts_with("org.freedesktop.DBus.Error." + std::string(name));
    };
    if (is("Spawn.ChildExited") || is("Spawn.ChildSignaled"))
        return {"the desktop portal ended as it was started, as it does without its desktop",
                "log in to the desktop again if it has ended; see journalctl --user -u "
                "'xdg-desktop-portal*'"};
    if (is("ServiceUnknown") || is("NameHasNoOwner") || is("Spawn."))
        return {"no desktop portal runs or can be started", kInstallBackend};
    if (is("UnknownMethod") || is("UnknownInterface") || is("UnknownObject"))
        return {"the desktop portal has no screen sharing for this desktop", kInstallBackend};
    return {};
}

}  // namespace

Diagnosis diagnose_no_bus() {
    return {"the agent's user is probably not logged in to the desktop",
            "log in before the next session, or start the agent as the user who is logged in "
            "(systemctl --user)"};
}

Diagnosis diagnose(const RequestResult& result) {
    constexpr uint32_t kDeclined = 1;
    switch (result.outcome) {
        case RequestOutcome::Refused:
            return diagnose_refused(result.error);
        case RequestOutcome::Answered:
            if (result.response.code == kDeclined)
                return {"screen sharing was declined at the PC", "approve the dialog there once"};
            return {"the desktop could not share its screen",
                    "see journalctl --user -u 'xdg-desktop-portal*'; a part of the portal for "
                    "another desktop may be installed, or PipeWire not run"};
        case RequestOutcome::TimedOut:
        case RequestOutcome::Cancelled:
        case RequestOutcome::Lost:
            break;
    }
    return {};
}

Diagnosis diagnose_no_pipewire(const std::string& error) {
    return {error.empty() ? "PipeWire cannot be reached" : "PipeWire cannot be reached: " + error,
            "install pipewire and wireplumber; systemctl --user enable --now pipewire wireplumber"};
}

void log_diagnosis(const Diagnosis& diagnosis) {
    if (diagnosis.cause.empty()) return;
    OX_WARN("PortalCapture: %s", diagnosis.log_text().c_str());
}

}  // namespace ox::portal
