#include "tui/board/messages.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

#include "support/environment.h"

namespace ox::tui {
namespace {

// Expected texts show their no-break spaces as "~".
std::string with_no_break_spaces(std::string text) {
    for (size_t at = 0; (at = text.find('~', at)) != std::string::npos;)
        text.replace(at, 1, "\xC2\xA0");
    return text;
}

TEST(Messages, EventsAndAlertsInBothLanguages) {
    const std::tuple<int, const char*, const char*> events[] = {
        {5, "Session ended after 1 h 05 min", "Сессия завершена, шла 1~ч 05~мин"},
        {7, "The player dropped, holding the session for 1 h 05 min",
         "Игрок отключился, держим сессию 1~ч 05~мин"},
        {11, "Port 48000 is busy", "Порт 48000 занят"},
        {255, "", ""},
    };
    for (const auto& [kind, english, russian] : events) {
        Event event;
        event.kind = static_cast<EventKind>(kind);
        event.value = 3900;
        event.alert = Alert::PortBusy;
        EXPECT_EQ(event_text(event, Lang::English, 48000), english);
        EXPECT_EQ(event_text(event, Lang::Russian, 48000), with_no_break_spaces(russian));
    }
    // The remedy depends on where the agent runs.
    EXPECT_EQ(alert_text(Alert::CaptureFailed, Lang::English, Host::NoDesktopSession, 1),
              "Can't capture the screen. Log in to the desktop session and restart the agent.");
    EXPECT_EQ(alert_text(Alert::CaptureFailed, Lang::Russian, Host::Desktop, 1),
              with_no_break_spaces("Не получается захватить экран. Подключите монитор (или "
                                   "HDMI-заглушку) и~разблокируйте ПК."));
    EXPECT_EQ(closed_port_text({48003, EACCES}, Lang::English),
              "Port 48003 can't be opened, details in the log.");
}

TEST(Localization, FirstLanguageVariableThatIsSetDecides) {
    using Value = std::optional<std::string>;
    const std::tuple<Value, Value, Value, Value, Lang> cases[] = {
        {{}, {}, {}, {}, Lang::English},
        {"RU", {}, {}, "en_US.UTF-8", Lang::Russian},
        {"en", {}, {}, "ru_RU.UTF-8", Lang::English},
        {"", {}, {}, "ru_RU.UTF-8", Lang::Russian},
        {{}, "C", {}, "ru_RU.UTF-8", Lang::English},
        {{}, {}, "rU", "C", Lang::Russian},
        {"ro_RO", {}, {}, {}, Lang::English},
    };
    for (const auto& [ox_lang, lc_all, lc_messages, lang, expected] : cases) {
        const test::Environment first("OX_LANG", ox_lang);
        const test::Environment second("LC_ALL", lc_all);
        const test::Environment third("LC_MESSAGES", lc_messages);
        const test::Environment fourth("LANG", lang);
        EXPECT_EQ(os_language(), expected) << ox_lang.value_or("") << lang.value_or("");
    }
}

}  // namespace
}  // namespace ox::tui
