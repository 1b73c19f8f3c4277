#include "tui/board_texts.h"

#include <gtest/gtest.h>

#include <optional>

#include "support/environment.h"

namespace ox::tui {
namespace {

// Expected texts show their no-break spaces as "~".
std::string with_no_break_spaces(std::string text) {
    for (size_t at = text.find('~'); at != std::string::npos; at = text.find('~', at)) {
        text.replace(at, 1, "\xC2\xA0");
    }
    return text;
}

TEST(BoardTexts, Events) {
    struct Case {
        int kind;
        const char* english;
        const char* russian;
    };
    const Case cases[] = {
        {0, "Agent started", "Агент запущен"},
        {1, "Connected to the platform", "Подключились к~платформе"},
        {2, "Connection lost, reconnecting", "Связь пропала, переподключаемся"},
        {3, "A player rented this PC", "Игрок арендовал этот ПК"},
        {4, "The player connected", "Игрок подключился"},
        {5, "Session ended after 1 h 05 min", "Сессия завершена, шла 1~ч 05~мин"},
        {6, "The session couldn't start, details in the log",
         "Сессия не~запустилась, подробности в~логе"},
        {7, "The player dropped, holding the session for 1 h 05 min",
         "Игрок отключился, держим сессию 1~ч 05~мин"},
        {8, "The player is back", "Игрок вернулся"},
        {9, "The stream moved to the relay", "Поток пошёл через релей"},
        {10, "The stream went direct", "Поток пошёл напрямую"},
        {11, "Port 48000 is busy", "Порт 48000 занят"},
        {12, "Stopping", "Останавливаемся"},
        {13, "The agent stopped on an error", "Агент остановился из-за ошибки"},
        {14, "", ""},
        {255, "", ""},
    };
    for (const Case& c : cases) {
        Event event;
        event.kind = static_cast<EventKind>(c.kind);
        event.value = 3900;
        event.alert = Alert::PortBusy;
        EXPECT_EQ(event_text(event, Lang::English, 48000), c.english);
        EXPECT_EQ(event_text(event, Lang::Russian, 48000), with_no_break_spaces(c.russian));
    }
}

TEST(BoardTexts, Alerts) {
    struct Case {
        Alert alert;
        Host host;
        const char* title[2];
        const char* text[2];
    };
    constexpr Host kDesktop = Host::Desktop;
    const Case cases[] = {
        {Alert::NvidiaDriverMissing,
         kDesktop,
         {"NVIDIA driver not found", "Не найден драйвер NVIDIA"},
         {"NVIDIA driver not found. Install it from nvidia.com/drivers and restart the agent.",
          "Не найден драйвер NVIDIA. Установите его с~nvidia.com/drivers и~перезапустите агент."}},
        {Alert::CaptureFailed,
         Host::NoDesktopSession,
         {"Screen capture failed", "Не удалось захватить экран"},
         {"Can't capture the screen. Log in to the desktop session and restart the agent.",
          "Не получается захватить экран. Войдите в~сеанс рабочего стола и~перезапустите агент."}},
        {Alert::CaptureFailed,
         kDesktop,
         {"Screen capture failed", "Не удалось захватить экран"},
         {"Can't capture the screen. Connect a monitor (or an HDMI dummy plug) and unlock the PC.",
          "Не получается захватить экран. Подключите монитор (или HDMI-заглушку) и~разблокируйте "
          "ПК."}},
        {Alert::EncoderFailed,
         Host::NoDesktopSession,
         {"The encoder didn't start", "Кодировщик не~запустился"},
         {"The video card couldn't start encoding. Update the GPU driver and restart the agent.",
          "Видеокарта не~запустила кодирование. Обновите драйвер и~перезапустите агент."}},
        {Alert::PortBusy,
         kDesktop,
         {"Port 65535 is busy", "Порт 65535 занят"},
         {"Port 65535 is taken by another program. Close it or change PORT_BASE in start-agent.",
          "Порт 65535 занят другой программой. Закройте её или поменяйте PORT_BASE "
          "в~start-agent."}},
        {Alert::TokenRejected,
         kDesktop,
         {"Token rejected", "Токен не~принят"},
         {"The platform rejected this PC's token. Download start-agent again from your cabinet.",
          "Платформа не~приняла токен этого ПК. Скачайте start-agent заново в~кабинете."}},
        {Alert::SecondAgent,
         kDesktop,
         {"A second agent with this token", "Второй агент с~этим токеном"},
         {"A second agent runs with this token. Keep only one.",
          "С~этим токеном запущен второй агент. Оставьте только один."}},
        {Alert::UinputDenied,
         kDesktop,
         {"No access to /dev/uinput", "Нет доступа к~/dev/uinput"},
         {"Players' mouse and keyboard won't work: no access to /dev/uinput. Run sudo usermod -aG "
          "input $USER and log in again.",
          "Мышь и~клавиатура игроков не~заработают: нет доступа к~/dev/uinput. Выполните sudo "
          "usermod -aG input $USER и~войдите заново."}},
    };
    for (const Case& c : cases) {
        for (const Lang lang : {Lang::English, Lang::Russian}) {
            const auto column = static_cast<size_t>(lang);
            EXPECT_EQ(alert_title(c.alert, lang, 65535), with_no_break_spaces(c.title[column]));
            EXPECT_EQ(alert_text(c.alert, lang, c.host, 65535),
                      with_no_break_spaces(c.text[column]));
        }
    }
}

TEST(BoardTexts, Durations) {
    struct Case {
        int64_t seconds;
        const char* english;
        const char* russian;
    };
    const Case cases[] = {
        {-5, "0 s", "0~с"},
        {59, "59 s", "59~с"},
        {60, "1 min", "1~мин"},
        {3599, "59 min", "59~мин"},
        {3600, "1 h 00 min", "1~ч 00~мин"},
        {3900, "1 h 05 min", "1~ч 05~мин"},
        {90'059, "25 h 00 min", "25~ч 00~мин"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(duration_words(c.seconds, Lang::English), c.english);
        EXPECT_EQ(duration_words(c.seconds, Lang::Russian), with_no_break_spaces(c.russian));
    }
}

TEST(BoardTexts, FirstLanguageVariableThatIsSetDecides) {
    using Value = std::optional<std::string>;
    struct Case {
        Value ox_lang;
        Value lc_all;
        Value lc_messages;
        Value lang;
        Lang expected;
    };
    const Case cases[] = {
        {{}, {}, {}, {}, Lang::English},
        {"RU", {}, {}, "en_US.UTF-8", Lang::Russian},
        {"en", {}, {}, "ru_RU.UTF-8", Lang::English},
        {"", {}, {}, "ru_RU.UTF-8", Lang::Russian},
        {{}, "C", {}, "ru_RU.UTF-8", Lang::English},
        {{}, {}, "rU", "C", Lang::Russian},
        {"r", {}, {}, "ru_RU.UTF-8", Lang::English},
        {"ro_RO", {}, {}, {}, Lang::English},
    };
    for (const Case& c : cases) {
        const test::Environment first("OX_LANG", c.ox_lang);
        const test::Environment second("LC_ALL", c.lc_all);
        const test::Environment third("LC_MESSAGES", c.lc_messages);
        const test::Environment fourth("LANG", c.lang);
        EXPECT_EQ(os_language(), c.expected) << &c - cases;
    }
}

}  // namespace
}  // namespace ox::tui
