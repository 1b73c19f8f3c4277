#pragma once

#include <cstdint>
#include <string>

#include "tui/board/board.h"

namespace ox::tui {

enum class Lang : uint8_t { English = 0, Russian = 1 };

/// What kind of seat the PC has, as far as the remedy for a failed capture differs.
enum class Host : uint8_t { Desktop = 0, NoDesktopSession = 1 };

/// The language of `OX_LANG`, `LC_ALL`, `LC_MESSAGES` or `LANG`, whichever is set first.
Lang os_language();

/// Short name of an alert.
std::string alert_title(Alert alert, Lang lang, uint16_t port);
/// What the owner should do about it.
std::string alert_text(Alert alert, Lang lang, Host host, uint16_t port,
                       const AlertReason& reason = {});
/// Why no launcher can connect, and what helps; for a port that is closed.
std::string closed_port_text(const ClosedPort& closed, Lang lang);
/// One line of the recent-events list; empty for a kind without a text.
std::string event_text(const Event& event, Lang lang, uint16_t port);
/// "59 s", "12 min", "1 h 05 min".
std::string duration_words(int64_t seconds, Lang lang);

}  // namespace ox::tui
