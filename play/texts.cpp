#include "play/texts.h"

#include <algorithm>
#include <cmath>

namespace ox::play {

namespace {

using tui::Lang;
using tui::Text;

constexpr Text kConnecting{"Connecting to {} …", "Соединение с\u00A0{} …"};
constexpr Text kStarting{"Connected. Waiting for the picture …",
                         "Соединение установлено. Ждём изображение …"};
constexpr Text kSilent{"No picture comes from the PC at the moment …",
                       "Изображение с\u00A0ПК сейчас не\u00A0приходит …"};
constexpr Text kLost{"The connection is lost. Trying to restore it for {} s more …",
                     "Связь потеряна. Пробуем восстановить её ещё {} с …"};
constexpr Text kHostEnded{"The PC has ended the session.", "ПК завершил сеанс."};
constexpr Text kNotBack{"The connection to the PC could not be restored.",
                        "Связь с\u00A0ПК восстановить не\u00A0удалось."};
constexpr Text kFailed{"The session has ended: {}", "Сеанс завершён: {}"};
constexpr Text kClose{"\nPress any key to close.", "\nЧтобы закрыть окно, нажмите любую клавишу."};

std::string filled(const Text& text, Lang lang, const std::string& value) {
    std::string result = text.in(lang);
    if (const size_t gap = result.find("{}"); gap != std::string::npos)
        result.replace(gap, 2, value);
    return result;
}

std::string end_message(const LinkStatus& status, Lang lang) {
    if (status.error.empty()) return {};
    const std::string close = kClose.in(lang);
    if (status.exit != ExitStatus::HostEnded) return filled(kFailed, lang, status.error) + close;
    return (status.ended_by_host ? kHostEnded : kNotBack).in(lang) + close;
}

constexpr Text kFps{"fps", "кадр/с"};
constexpr Text kMs{"ms", "мс"};
constexpr Text kMbit{"Mbit/s", "Мбит/с"};

std::string value(double number, int decimals, const Text& unit, Lang lang) {
    return tui::number(number, decimals, lang) + "\u00A0" + unit.in(lang);
}

std::string sound_text(const SoundStats& sound, Lang lang) {
    if (!sound.open) return Text{"no device", "нет устройства"}.in(lang);
    std::string text = value(sound.delay_ms, 0, kMs, lang) + Text{", drift ", ", дрейф "}.in(lang) +
                       std::to_string(std::lround(sound.buffer.drift_ppm)) + "\u00A0ppm";
    if (sound.buffer.lag_ms)
        text += Text{", behind the picture ", ", отстаёт от\u00A0картинки на\u00A0"}.in(lang) +
                std::to_string(std::lround(*sound.buffer.lag_ms)) + "\u00A0" + kMs.in(lang);
    return text;
}

}  // namespace

std::string status_message(const LinkStatus& status, const std::string& host,
                           SteadyClock::time_point now, Lang lang) {
    switch (status.state) {
        case LinkState::Connecting:
            return filled(kConnecting, lang, host);
        case LinkState::Starting:
            return kStarting.in(lang);
        case LinkState::Playing:
            return {};
        case LinkState::Silent:
            return kSilent.in(lang);
        case LinkState::Lost: {
            const auto left = std::chrono::ceil<std::chrono::seconds>(status.deadline - now);
            return filled(kLost, lang, std::to_string(std::max<int64_t>(left.count(), 0)));
        }
        case LinkState::Ended:
            return end_message(status, lang);
    }
    return {};
}

std::string statistics_text(const LinkStatus& status, const StatisticsView& view, Lang lang) {
    const launcher::Progress& progress = status.progress;
    std::string text;
    const auto add = [&](const Text& name, const std::string& line) {
        text.append(text.empty() ? "" : "\n").append(name.in(lang)).append(line);
    };
    add({"picture     ", "изображение "}, std::to_string(view.picture.x) + "×" +
                                              std::to_string(view.picture.y) + ", " +
                                              value(view.shown_fps, 1, kFps, lang));
    add({"bitrate     ", "битрейт     "},
        value(progress.mbit_per_s, 1, kMbit, lang) + Text{" of ", " из\u00A0"}.in(lang) +
            value(status.bitrate_kbps / 1e3, 1, kMbit, lang) +
            (view.automatic_bitrate ? Text{" (auto)", " (авто)"}.in(lang) : ""));
    add({"age         ", "возраст     "}, value(view.age_ms, 0, kMs, lang));
    add({"decoding    ", "декодер     "},
        value(status.decode_ms, 1, kMs, lang) + ", " + status.decoder);
    add({"drawing     ", "вывод       "}, view.renderer);
    add({"round trip  ", "отклик сети "}, value(progress.rtt_ms, 0, kMs, lang));
    add({"packets     ", "пакеты      "}, Text{"lost ", "потеряно "}.in(lang) +
                                              value(progress.loss_pct, 1, {"%", "%"}, lang) +
                                              Text{", recovered ", ", восстановлено "}.in(lang) +
                                              std::to_string(progress.packets_recovered));
    add({"pictures    ", "кадры       "},
        Text{"lost ", "потеряно "}.in(lang) + std::to_string(progress.frames_lost) +
            Text{", late ", ", опоздало "}.in(lang) + std::to_string(view.dropped));
    if (view.sound) add({"sound       ", "звук        "}, sound_text(*view.sound, lang));
    add({"input       ", "ввод        "},
        std::to_string(view.input.events) + Text{" events, failed ", " событий, сбоев "}.in(lang) +
            std::to_string(view.input.failed));
    return text;
}

}  // namespace ox::play
