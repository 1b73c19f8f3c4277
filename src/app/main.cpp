#include <sodium.h>

#include <csignal>
#include <cstdio>
#include <optional>
#include <span>
#include <thread>

#include "app/build_info.h"
#include "app/host_checks.h"
#include "app/memory_trim.h"
#include "app/options.h"
#include "app/panic_listener.h"
#include "app/platform_loop.h"
#include "app/process_flags.h"
#include "app/selftest/selftest.h"
#include "app/standalone_loop.h"
#include "app/terminal.h"
#include "log/log.h"
#include "saas/saas_config.h"
#include "saas/system_info.h"
#include "tui/board/board.h"

namespace ox {
namespace {

constexpr int kExitOk = 0;
constexpr int kExitNoCrypto = 1;
constexpr int kExitUsage = 2;

/// Answers a command line that does not run the agent. Returns the exit status.
int answer(const ParsedCommandLine<Options>& command_line, const char* program) {
    if (command_line.action == CommandLineAction::ShowVersion) {
        std::printf("%s\n", build::version());
        return kExitOk;
    }
    if (!command_line.error.empty()) OX_ERROR("%s", command_line.error.c_str());
    std::fputs(usage_text(program).c_str(), stdout);
    return command_line.action == CommandLineAction::ShowHelp ? kExitOk : kExitUsage;
}

/// Gives the terminal to the screen, or leaves it to the log.
void start_screen(tui::ScreenRunner& screen, bool console_log, bool log_file_open) {
    if (!log_file_open) {
        const std::string path = [] {
            const MutexLock lock(log_mutex());
            return log_sinks().path;
        }();
        OX_WARN("Log file %s cannot be written - logging to the terminal only", path.c_str());
        return;
    }
    if (console_log) return;
    redirect_stderr_to_log();
    screen.start(tui::os_language(), tui::board(), terminal_colour_mode());
}

void raise_start_up_alerts(const Options& options) {
    const bool may_use_nvenc =
        options.encoder == EncoderBackend::Auto || options.encoder == EncoderBackend::Nvenc;
    if (may_use_nvenc && nvidia_driver_missing("/")) {
        tui::board().raise(tui::Alert::NvidiaDriverMissing, 0);
    }
}

void log_banner(const Options& options) {
    OX_INFO(
        "orvex-agent (Linux) %s starting — port_base=%u capture=%s codec=%s backend=%d "
        "bitrate=%ukbps fps=%u",
        build::tag(), static_cast<unsigned>(options.port_base), name_of(options.capture),
        codec_info(options.codec).option_name, static_cast<int>(options.encoder),
        static_cast<unsigned>(options.bitrate_kbps), static_cast<unsigned>(options.fps));
}

std::jthread listen_for_stop_requests() {
    install_signal_handler(SIGINT, on_sigint);
    install_signal_handler(SIGUSR1, on_sigusr1);
    std::jthread panic_listener = start_panic_listener();
    install_signal_handler(SIGTERM, on_sigint);
    // nohup(1) sets "ignored": the agent is to outlive its terminal.
    if (!is_ignored(SIGHUP)) install_signal_handler(SIGHUP, on_sigint);
    return panic_listener;
}

int run(int argc, char** argv) {
    reserve_standard_descriptors();
    record_linked_libraries();
    const auto arguments =
        std::span<const char* const>(argv, static_cast<size_t>(argc)).subspan(argc > 0 ? 1 : 0);
    const auto command_line = parse_command_line(arguments, default_options());
    if (command_line.action != CommandLineAction::Run) {
        return answer(command_line, argc > 0 ? argv[0] : "orvex-agent");
    }
    const Options& options = command_line.options;
    if (options.log_level) log_level() = static_cast<int32_t>(*options.log_level);
    if (options.selftest) {
        // Without the components' progress lines between the results.
        if (!options.log_level) log_level() = static_cast<int32_t>(LogLevel::WARN);
        return run_selftest();
    }

    const bool console_log = console_log_requested() || wants_verbose(arguments);
    const bool log_file_open = open_log_and_identify();
    std::optional<PlatformEndpoint> backend;
    if (!options.saas_url.empty()) {
        const auto url = parse_platform_url(options.saas_url);
        if (const auto* error = std::get_if<std::string>(&url)) {
            OX_ERROR("%s", error->c_str());
            return kExitUsage;
        }
        backend = std::get<PlatformEndpoint>(url);
    }
    tui::ScreenRunner screen;
    start_screen(screen, console_log, log_file_open);
    IdleWatch idle(options);
    idle.check();
    raise_start_up_alerts(options);

    if (::sodium_init() < 0) {
        OX_ERROR("libsodium init failed");
        tui::board().push(tui::EventKind::StoppedOnError);
        return kExitNoCrypto;
    }
    const std::jthread panic_listener = listen_for_stop_requests();
    ignore_sigpipe();
    reset_sigchld();
    log_banner(options);

    const SystemInfo system_info = detect_system_info();
    tui::board().update([&](tui::Snapshot& state) { state.gpu = system_info.gpu_model; });
    DesktopNotice desktop(options);
    if (backend) {
        run_platform(options, *backend, system_info, desktop, idle);
    } else {
        run_standalone(options, desktop, idle);
    }
    tui::board().push(tui::EventKind::Stopping);
    return kExitOk;
}

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    return ox::run(argc, argv);
}
