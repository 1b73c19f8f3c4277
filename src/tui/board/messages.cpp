#include "tui/board/messages.h"

#include <cerrno>
#include <string_view>

namespace ox::tui {
namespace {

// `text` with the port in place of "{port}".
std::string with_port(std::string text, uint16_t port) {
    constexpr std::string_view kPort = "{port}";
    if (const size_t at = text.find(kPort); at != std::string::npos) {
        text.replace(at, kPort.size(), std::to_string(port));
    }
    return text;
}

Text title_of(Alert alert) {
    switch (alert) {
        case Alert::NvidiaDriverMissing:
            return {"NVIDIA driver not found", "Не найден драйвер NVIDIA"};
        case Alert::CaptureFailed:
            return {"Screen capture failed", "Не удалось захватить экран"};
        case Alert::EncoderFailed:
            return {"The encoder didn't start", "Кодировщик не\u00A0запустился"};
        case Alert::PortBusy:
            return {"Port {port} is busy", "Порт {port} занят"};
        case Alert::TokenRejected:
            return {"Token rejected", "Токен не\u00A0принят"};
        case Alert::SecondAgent:
            return {"A second agent with this token", "Второй агент с\u00A0этим токеном"};
        case Alert::UinputDenied:
            return {"No access to /dev/uinput", "Нет доступа к\u00A0/dev/uinput"};
    }
    return {"", ""};
}

Text capture_remedy(CaptureTrouble trouble, Host host) {
    switch (trouble) {
        case CaptureTrouble::NoPicture:
            if (host == Host::NoDesktopSession) {
                return {
                    "Can't capture the screen. Log in to the desktop session and restart the "
                    "agent.",
                    "Не получается захватить экран. Войдите в\u00A0сеанс рабочего стола "
                    "и\u00A0перезапустите агент."};
            }
            return {
                "Can't capture the screen. Connect a monitor (or an HDMI dummy plug) and "
                "unlock the PC.",
                "Не получается захватить экран. Подключите монитор (или HDMI-заглушку) "
                "и\u00A0разблокируйте ПК."};
        case CaptureTrouble::Declined:
            return {
                "Sharing the screen was declined on this PC. The next session asks again: "
                "choose the screen in the window and confirm.",
                "На\u00A0этом ПК отказались показать экран. Следующая сессия спросит снова: "
                "выберите экран в\u00A0окне и\u00A0подтвердите."};
        case CaptureTrouble::Unanswered:
            return {
                "Nobody confirmed on this PC that the screen may be shared. The next session "
                "asks again: confirm the window once.",
                "На\u00A0этом ПК никто не\u00A0подтвердил показ экрана. Следующая сессия "
                "спросит снова: подтвердите окно один раз."};
        case CaptureTrouble::Stopped:
            return {
                "Sharing the screen was stopped on this PC, so the session ended. The next "
                "session asks for permission again.",
                "На\u00A0этом ПК остановили показ экрана, и\u00A0сессия завершилась. Следующая "
                "сессия снова спросит разрешения."};
        case CaptureTrouble::Black:
            return {"The player sees a black screen. Unlock the PC and wake its display.",
                    "Игрок видит чёрный экран. Разблокируйте ПК и\u00A0включите его дисплей."};
    }
    return {"", ""};
}

Text remedy_for(Alert alert, Host host, const AlertReason& reason) {
    switch (alert) {
        case Alert::NvidiaDriverMissing:
            return {
                "NVIDIA driver not found. Install it from nvidia.com/drivers and restart the "
                "agent.",
                "Не найден драйвер NVIDIA. Установите его с\u00A0nvidia.com/drivers "
                "и\u00A0перезапустите агент."};
        case Alert::CaptureFailed:
            return capture_remedy(reason.capture, host);
        case Alert::EncoderFailed:
            return {
                "The video card couldn't start encoding. Update the GPU driver and restart the "
                "agent.",
                "Видеокарта не\u00A0запустила кодирование. Обновите драйвер "
                "и\u00A0перезапустите агент."};
        case Alert::PortBusy:
            return {
                "Port {port} is taken by another program. Close it or change PORT_BASE in "
                "start-agent.",
                "Порт {port} занят другой программой. Закройте её или поменяйте PORT_BASE "
                "в\u00A0start-agent."};
        case Alert::TokenRejected:
            return {
                "The platform rejected this PC's token. Download start-agent again from your "
                "cabinet.",
                "Платформа не\u00A0приняла токен этого ПК. Скачайте start-agent заново "
                "в\u00A0кабинете."};
        case Alert::SecondAgent:
            return {"A second agent runs with this token. Keep only one.",
                    "С\u00A0этим токеном запущен второй агент. Оставьте только один."};
        case Alert::UinputDenied:
            if (reason.uinput_absent) {
                return {
                    "Players' mouse and keyboard won't work: there is no /dev/uinput. Run sudo "
                    "modprobe uinput.",
                    "Мышь и\u00A0клавиатура игроков не\u00A0заработают: нет /dev/uinput. "
                    "Выполните sudo modprobe uinput."};
            }
            return {
                "Players' mouse and keyboard won't work: no access to /dev/uinput. Run sudo "
                "usermod -aG input $USER and log in again.",
                "Мышь и\u00A0клавиатура игроков не\u00A0заработают: нет доступа "
                "к\u00A0/dev/uinput. Выполните sudo usermod -aG input $USER и\u00A0войдите "
                "заново."};
    }
    return {"", ""};
}

Text event_message(EventKind kind) {
    switch (kind) {
        case EventKind::AgentStarted:
            return {"Agent started", "Агент запущен"};
        case EventKind::PlatformConnected:
            return {"Connected to the platform", "Подключились к\u00A0платформе"};
        case EventKind::PlatformLost:
            return {"Connection lost, reconnecting", "Связь пропала, переподключаемся"};
        case EventKind::PcRented:
            return {"A player rented this PC", "Игрок арендовал этот ПК"};
        case EventKind::PlayerConnected:
            return {"The player connected", "Игрок подключился"};
        case EventKind::SessionEnded:
            return {"Session ended after ", "Сессия завершена, шла "};
        case EventKind::SessionNotStarted:
            return {"The session couldn't start, details in the log",
                    "Сессия не\u00A0запустилась, подробности в\u00A0логе"};
        case EventKind::PlayerDropped:
            return {"The player dropped, holding the session for ",
                    "Игрок отключился, держим сессию "};
        case EventKind::PlayerBack:
            return {"The player is back", "Игрок вернулся"};
        case EventKind::StreamRelayed:
            return {"The stream moved to the relay", "Поток пошёл через релей"};
        case EventKind::StreamDirect:
            return {"The stream went direct", "Поток пошёл напрямую"};
        case EventKind::Stopping:
            return {"Stopping", "Останавливаемся"};
        case EventKind::StoppedOnError:
            return {"The agent stopped on an error", "Агент остановился из-за ошибки"};
        case EventKind::AlertRaised:
            break;
    }
    return {"", ""};
}

}  // namespace

std::string alert_title(Alert alert, Lang lang, uint16_t port) {
    return with_port(title_of(alert).in(lang), port);
}

std::string alert_text(Alert alert, Lang lang, Host host, uint16_t port,
                       const AlertReason& reason) {
    return with_port(remedy_for(alert, host, reason).in(lang), port);
}

std::string address_text(const OwnAddress& own, Lang lang) {
    return own.ip + Text{", port base ", ", базовый порт "}.in(lang) +
           std::to_string(own.port_base);
}

std::string closed_port_text(const ClosedPort& closed, Lang lang) {
    constexpr uint16_t kFirstUnprivilegedPort = 1024;
    Text text{"Port {port} can't be opened, details in the log.",
              "Порт {port} не\u00A0открывается, подробности в\u00A0логе."};
    if (closed.error == EADDRINUSE) {
        text = {"No launcher can connect until port {port} is free.",
                "Лаунчер не\u00A0подключится, пока порт {port} занят."};
    } else if (closed.error == EACCES && closed.port < kFirstUnprivilegedPort) {
        text = {
            "The system doesn't let the agent open port {port}. Set PORT_BASE to 1024 or more "
            "in start-agent.",
            "Система не\u00A0даёт агенту открыть порт {port}. Укажите PORT_BASE "
            "не\u00A0меньше 1024 в\u00A0start-agent."};
    }
    return with_port(text.in(lang), closed.port);
}

std::string play_text(const OwnAddress& own, Lang lang) {
    constexpr uint16_t kDefaultPortBase = 47998;  // orvex-play's
    std::string text =
        Text{"From another PC: orvex-play ", "С\u00A0другого ПК: orvex-play "}.in(lang) + own.ip;
    return own.port_base == kDefaultPortBase ? text : text + ":" + std::to_string(own.port_base);
}

std::string event_text(const Event& event, Lang lang, uint16_t port) {
    if (event.kind == EventKind::AlertRaised) return alert_title(event.alert, lang, port);
    std::string text = event_message(event.kind).in(lang);
    if (event.kind == EventKind::SessionEnded || event.kind == EventKind::PlayerDropped) {
        text += duration_words(event.value, lang);
    }
    return text;
}

}  // namespace ox::tui
