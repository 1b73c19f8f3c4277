#include "app/desktop_notice.h"

#include <chrono>

#include "audio/sound_server.h"
#include "desktop/desktop_search.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kPause{10};
constexpr std::chrono::milliseconds kSlow{200};
constexpr std::chrono::milliseconds kSoundServerLimit{1000};

std::string in_words(const Desktop& desktop) {
    return desktop.has_screen() ? describe(desktop) : "";
}

}  // namespace

DesktopNotice::DesktopNotice(const Options& options) {
    const std::string& capture = options.capture;
    if (capture == "auto") {
        missing_.push_back({"display", [display = options.display](const Cancelled& cancelled) {
                                return in_words(search_desktop(display, cancelled));
                            }});
    }
    // An X11 desktop is captured without the bus.
    const Desktop known = desktop_of_environment(options.display);
    const bool may_need_bus = !known.has_screen() || known.is_wayland();
    if (capture == "portal" || (capture == "auto" && may_need_bus)) {
        missing_.push_back({"session bus", [](const Cancelled& /*cancelled*/) {
                                return std::string(session_bus_listens() ? "listening" : "");
                            }});
    }
    if (options.audio) {
        missing_.push_back({"sound server", [](const Cancelled& cancelled) {
                                const bool answers =
                                    sound_server_answers(kSoundServerLimit, cancelled);
                                return std::string(answers ? "answering" : "");
                            }});
    }
}

void DesktopNotice::look_now_and_then(const Cancelled& cancelled) {
    if (!missing_.empty() && SteadyClock::now() >= next_look_) look(cancelled);
}

void DesktopNotice::look(const Cancelled& cancelled) {
    const auto begin = SteadyClock::now();
    if (begin < not_before_ || cancelled()) return;
    next_look_ = begin + kPause;
    std::string names;
    std::erase_if(missing_, [&](const Part& part) {
        const std::string found = part.find(cancelled);
        if (found.empty()) {
            names += std::string(names.empty() ? "" : ", ") + "no " + part.name;
        } else if (told_) {
            OX_INFO("Desktop: the %s is there now (%s)", part.name, found.c_str());
        }
        return !found.empty();
    });
    if (!cancelled()) {  // else what was not found may be there
        if (!told_ && !names.empty()) {
            OX_WARN("Desktop: %s yet — looked for again at every session", names.c_str());
        }
        told_ = true;
    }
    // Nobody can connect meanwhile: servers that do not answer are not waited for at every session.
    if (SteadyClock::now() - begin > kSlow) not_before_ = next_look_;
}

}  // namespace ox
