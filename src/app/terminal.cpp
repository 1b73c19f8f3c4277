#include "app/terminal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "app/build_info.h"
#include "base/environment.h"
#include "log/log.h"
#include "log/log_path.h"

namespace ox {
namespace {

/// Opens `path` for appending as the logger's file. False when that fails.
bool open_log_file(const std::string& path) {
    const MutexLock lock(log_mutex());
    LogSinks& sinks = log_sinks();
    sinks.path = path;
    sinks.file = std::fopen(path.c_str(), "ae");  // NOLINT: closed by its owner, LogSinks
    if (sinks.file == nullptr) return false;
    std::fseek(sinks.file, 0, SEEK_END);
    sinks.bytes = std::ftell(sinks.file);
    return true;
}

std::string host_name() {
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) return {};
    return name.data();
}

}  // namespace

void reserve_standard_descriptors() {
    int fd = -1;
    do {
        fd = ::open("/dev/null", O_RDWR);  // NOLINT: a standard descriptor outlives an exec
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) ::close(fd);
}

tui::ColourMode terminal_colour_mode() {
    if (environment("OX_TUI") == "plain") return tui::ColourMode::Plain;
    if (::isatty(STDOUT_FILENO) != 1) return tui::ColourMode::Plain;
    const std::string_view term = environment("TERM");
    if (term.empty() || term == "dumb") return tui::ColourMode::Plain;
    const std::string_view colour = environment("COLORTERM");
    return colour == "truecolor" || colour == "24bit" ? tui::ColourMode::TrueColour
                                                      : tui::ColourMode::Ansi;
}

bool console_log_requested() {
    constexpr std::array<std::string_view, 6> kOn{"1", "true", "TRUE", "yes", "on", "ON"};
    return std::find(kOn.begin(), kOn.end(), environment("OX_CONSOLE_LOG")) != kOn.end();
}

bool open_log_and_identify() {
    const std::string path = default_log_path();
    const bool opened = open_log_file(path);
    tui::board().update([&](tui::Snapshot& state) {
        state.started = true;
        state.version = build::version();
        state.host = host_name();
        state.log_path = opened ? path : "";
        state.add_event(tui::EventKind::AgentStarted);
    });
    return opened;
}

void redirect_stderr_to_log() {
    const MutexLock lock(log_mutex());
    LogSinks& sinks = log_sinks();
    sinks.console = false;
    std::fflush(stderr);
    ::dup2(::fileno(sinks.file), STDERR_FILENO);
    sinks.stderr_redirected = true;
}

}  // namespace ox
