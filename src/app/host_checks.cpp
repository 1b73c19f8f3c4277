#include "app/host_checks.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <fstream>
#include <system_error>

#include "audio/sound_server.h"
#include "base/unique_fd.h"
#include "control/tcp_socket.h"
#include "desktop/desktop_search.h"
#include "input/uinput_device.h"
#include "log/log.h"
#include "tui/board/board.h"

namespace ox {
namespace {

constexpr std::chrono::seconds kPause{10};
constexpr std::chrono::milliseconds kSlow{200};
constexpr std::chrono::milliseconds kSoundServerLimit{1000};

namespace fs = std::filesystem;

std::string first_word(const fs::path& file) {
    std::ifstream in(file);
    std::string word;
    in >> word;
    return word;
}

bool is_nvidia_display(const fs::path& pci_device) {
    if (first_word(pci_device / "vendor") != "0x10de") return false;
    // PCI base class 0x03 is "display controller". A DRM card is one even without a class file.
    const std::string pci_class = first_word(pci_device / "class");
    return pci_class.empty() || pci_class.starts_with("0x03");
}

/// Whether `device_of` some entry of `folder` is an NVIDIA display adapter.
template <typename DeviceOf>
bool any_nvidia(const fs::path& folder, DeviceOf device_of) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (is_nvidia_display(device_of(entry->path()))) return true;
    }
    return false;
}

std::string description(const Desktop& desktop) {
    return desktop.has_screen() ? describe(desktop) : "";
}

}  // namespace

bool nvidia_driver_missing(const fs::path& root) {
    std::error_code error;
    if (fs::exists(root / "proc/driver/nvidia", error)) return false;
    return any_nvidia(root / "sys/class/drm",
                      [](const fs::path& card) { return card / "device"; }) ||
           any_nvidia(root / "sys/bus/pci/devices", [](const fs::path& device) { return device; });
}

std::string own_ip_address() {
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    ::inet_pton(AF_INET, "192.0.2.1", &address.sin_addr);  // of nobody (RFC 5737)
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    std::array<char, INET_ADDRSTRLEN> text{};
    // Connecting a datagram socket only looks up the route.
    if (!socket || ::connect(socket.get(), generic, size) != 0 ||
        ::getsockname(socket.get(), generic, &size) != 0 ||
        ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr) {
        return {};
    }
    return text.data();
}

void IdleWatch::check() {
    const int error = options_.input ? uinput_access_error(uinput_.c_str()) : 0;
    // Only a change: a session may have failed for a reason that permissions do not show.
    if (error != uinput_error_) tui::board().input_device(error);
    uinput_error_ = error;

    const tui::ClosedPort closed = tui::board().closed_port();
    if (closed.error != 0 && tcp_port_error(closed.port) == 0) {
        tui::board().control_port_open(closed.port);
    }
}

DesktopNotice::DesktopNotice(const Options& options) {
    const CaptureBackend capture = options.capture;
    if (capture == CaptureBackend::Auto) {
        missing_.push_back({"display", [display = options.display](const Cancelled& cancelled) {
                                return description(search_desktop(display, cancelled));
                            }});
    }
    // An X11 desktop is captured without the bus.
    const Desktop known = desktop_of_environment(options.display);
    const bool may_need_bus = !known.has_screen() || known.is_wayland();
    if (capture == CaptureBackend::Portal || (capture == CaptureBackend::Auto && may_need_bus)) {
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

void DesktopNotice::check_if_due(const Cancelled& cancelled) {
    if (!missing_.empty() && SteadyClock::now() >= next_check_) check(cancelled);
}

void DesktopNotice::check(const Cancelled& cancelled) {
    const auto begin = SteadyClock::now();
    if (begin < not_before_ || cancelled()) return;
    next_check_ = begin + kPause;
    std::string names;
    std::erase_if(missing_, [&](const Part& part) {
        const std::string found = part.find(cancelled);
        if (found.empty()) {
            names += std::string(names.empty() ? "" : ", ") + "no " + part.name;
        } else if (reported_) {
            OX_INFO("Desktop: the %s is there now (%s)", part.name, found.c_str());
        }
        return !found.empty();
    });
    if (!cancelled()) {  // otherwise the check is incomplete
        if (!reported_ && !names.empty()) {
            OX_WARN("Desktop: %s yet — looked for again at every session", names.c_str());
        }
        reported_ = true;
    }
    // No launcher can connect meanwhile: do not wait for a dead server before every session.
    if (SteadyClock::now() - begin > kSlow) not_before_ = next_check_;
}

}  // namespace ox
