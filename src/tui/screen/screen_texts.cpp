#include "tui/screen/screen_texts.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace ox::tui::screen_texts {

const char* link(LinkState link, Lang lang) {
    switch (link) {
        case LinkState::None:
            return in(lang, "Connecting to the platform", "Подключаемся к\u00A0платформе");
        case LinkState::Connected:
            return in(lang, "Platform connected", "Платформа на\u00A0связи");
        case LinkState::Reconnecting:
            return in(lang, "Connection lost, reconnecting", "Связь пропала, переподключаемся");
        case LinkState::Standalone:
            return in(lang, "Standalone, no platform", "Автономно, без платформы");
    }
    return "";
}

const char* session_title(const Snapshot& snapshot, Lang lang) {
    const SessionView& session = snapshot.session;
    if (session.state != SessionState::None && session.picture == PictureState::AwaitingOwner) {
        return in(lang, "CONFIRM ON THIS PC", "ПОДТВЕРДИТЕ НА\u00A0ЭТОМ ПК");
    }
    switch (session.state) {
        case SessionState::Preparing:
            return in(lang, "PREPARING A SESSION", "ГОТОВИМ СЕССИЮ");
        case SessionState::Streaming:
            if (session.holding) return in(lang, "PLAYER DROPPED", "ИГРОК ОТКЛЮЧИЛСЯ");
            return session.picture == PictureState::Lost
                       ? in(lang, "NO PICTURE", "НЕТ ИЗОБРАЖЕНИЯ")
                       : in(lang, "PLAYER CONNECTED", "ИГРОК ПОДКЛЮЧЁН");
        case SessionState::None:
            break;
    }
    if (snapshot.closed_port.error != 0) {
        return in(lang, "NOBODY CAN CONNECT", "ПОДКЛЮЧИТЬСЯ НЕЛЬЗЯ");
    }
    switch (snapshot.link) {
        case LinkState::Connected:
            return in(lang, "WAITING FOR A PLAYER", "ЖДЁМ ИГРОКА");
        case LinkState::Standalone:
            return in(lang, "WAITING FOR A LAUNCHER", "ЖДЁМ ЛАУНЧЕР");
        case LinkState::None:
        case LinkState::Reconnecting:
            break;
    }
    return in(lang, "NO SESSION", "НЕТ СЕССИИ");
}

const char* picture_hint(PictureState picture, Lang lang) {
    switch (picture) {
        case PictureState::AwaitingOwner:
            return in(lang, "Confirm the window that asks to share the screen.",
                      "Подтвердите окно с\u00A0вопросом о\u00A0показе экрана.");
        case PictureState::Lost:
            return in(lang, "The screen can't be captured now. Mouse and keyboard are off.",
                      "Экран сейчас не\u00A0захватить. Мышь и\u00A0клавиатура отключены.");
        case PictureState::Fine:
            break;
    }
    return "";
}

std::string session_hint(const Snapshot& snapshot, Lang lang) {
    if (snapshot.session.state != SessionState::None &&
        snapshot.session.picture == PictureState::AwaitingOwner) {
        return picture_hint(snapshot.session.picture, lang);
    }
    if (snapshot.session.state != SessionState::None) {
        return snapshot.session.launcher.empty()
                   ? in(lang, "Waiting for the player's launcher.", "Ждём лаунчер игрока.")
                   : in(lang, "Starting the stream.", "Запускаем поток.");
    }
    if (snapshot.closed_port.error != 0) return closed_port_text(snapshot.closed_port, lang);
    switch (snapshot.link) {
        case LinkState::Connected:
            return in(lang, "The next session starts by itself.",
                      "Следующая сессия начнётся сама.");
        case LinkState::Standalone:
            return in(lang, "A launcher can connect to this PC now.",
                      "Лаунчер может подключиться к\u00A0этому ПК.");
        case LinkState::Reconnecting:
            return in(lang, "Nobody can rent this PC until the connection is back.",
                      "Пока связи нет, этот ПК нельзя арендовать.");
        case LinkState::None:
            break;
    }
    return in(lang, "Nobody can rent this PC until it is connected.",
              "Пока связи нет, этот ПК нельзя арендовать.");
}

std::string holding(int64_t seconds, Lang lang) {
    const std::string time = duration_words(seconds, lang);
    return lang == Lang::Russian ? "Держим сессию ещё " + time
                                 : "Holding the session for " + time + " more";
}

std::string stopwatch(int64_t seconds) {
    const auto total = static_cast<long long>(std::max<int64_t>(seconds, 0));
    std::array<char, 40> text{};
    if (total < 3600) {
        std::snprintf(text.data(), text.size(), "%lld:%02lld", total / 60, total % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                      total % 60);
    }
    return text.data();
}

std::string time_of_day(int64_t time_s) {
    const time_t seconds = time_s;
    tm local{};
    ::localtime_r(&seconds, &local);
    std::array<char, sizeof "HH:MM:SS"> text{};
    std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
    return text.data();
}

std::string number(double value, int decimals, Lang lang) {
    constexpr double kMost = 99'999.0;
    if (!std::isfinite(value) || value < 0) return "—";
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.*f", decimals, std::min(value, kMost));
    std::string result = text.data();
    // Whatever the process's locale has made of it.
    for (char& c : result) {
        if (c == '.' || c == ',') c = lang == Lang::Russian ? ',' : '.';
    }
    return result;
}

}  // namespace ox::tui::screen_texts
