#pragma once

#include <cstdint>
#include <string>

#include "tui/board/board.h"
#include "tui/board/localization.h"

// The board's alerts and events in the owner's language.

namespace ox::tui {

/// What the remedy for a failed capture depends on.
enum class Host : uint8_t { Desktop = 0, NoDesktopSession = 1 };

std::string alert_title(Alert alert, Lang lang, uint16_t port);
/// What the owner should do about it.
std::string alert_text(Alert alert, Lang lang, Host host, uint16_t port,
                       const AlertReason& reason = {});
/// Why no launcher can connect, and the remedy; for a port that is closed.
std::string closed_port_text(const ClosedPort& closed, Lang lang);
/// Where a launcher connects to.
std::string address_text(const OwnAddress& own, Lang lang);
/// One line of the recent-events list; empty for an unknown kind.
std::string event_text(const Event& event, Lang lang, uint16_t port);
/// The command that plays on this PC from another one.
std::string play_text(const OwnAddress& own, Lang lang);

}  // namespace ox::tui
