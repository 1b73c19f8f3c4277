#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <span>
#include <string>

#include "launcher/client/video_decoder.h"
#include "launcher/options.h"
#include "launcher/session.h"

namespace {

using namespace ox::launcher;

std::atomic<bool> g_stop{false};

extern "C" void on_stop_signal(int) {
    g_stop = true;
}

void install_signal_handlers() {
    struct sigaction action {};
    action.sa_handler = on_stop_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

// The progress line: rewritten in place on a terminal, one line a second elsewhere.
class ProgressLine {
  public:
    explicit ProgressLine(bool enabled) : enabled_(enabled) {}

    void show(const Progress& progress) {
        if (!enabled_) return;
        std::fprintf(stderr, in_place_ ? "\r\x1b[K%s" : "%s\n", to_text(progress).c_str());
        std::fflush(stderr);
        shown_ = true;
    }
    void end() const {
        if (shown_ && in_place_) std::fputc('\n', stderr);
    }

  private:
    bool enabled_;
    bool in_place_ = ::isatty(STDERR_FILENO) == 1;
    bool shown_ = false;
};

bool write_text_file(const std::string& path, const std::string& text) {
    std::ofstream file(path);
    file << text;
    file.close();
    return file.good();
}

int run(const Options& options) {
    install_signal_handlers();
    silence_libav();
    ProgressLine line(!options.quiet);
    Session session(
        options, [] { return g_stop.load(); },
        [&](const Progress& progress) { line.show(progress); });
    const Summary summary = session.run();
    line.end();

    int status = static_cast<int>(summary.status);
    if (!summary.error.empty()) std::fprintf(stderr, "orvex-launcher: %s\n", summary.error.c_str());
    if (options.json)
        std::printf("%s\n", to_json(summary).c_str());
    else if (!options.quiet && summary.decode.frames_decoded > 0)
        std::fputs(to_text(summary).c_str(), stdout);
    if (!options.json_file.empty() &&
        !write_text_file(options.json_file, to_json(summary) + "\n")) {
        std::fprintf(stderr, "orvex-launcher: cannot write %s\n", options.json_file.c_str());
        if (status == 0) status = static_cast<int>(ExitStatus::Failed);
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    const std::span<char*> arguments(argv, static_cast<size_t>(argc));
    using Action = ox::CommandLineAction;
    const auto parsed =
        parse_command_line(arguments.subspan(argc > 0 ? 1 : 0), std::getenv("ORVEX_TOKEN"));
    switch (parsed.action) {
        case Action::ShowHelp:
            std::fputs(usage_text().c_str(), stdout);
            return 0;
        case Action::ShowVersion:
            std::puts(OX_LAUNCHER_VERSION);
            return 0;
        case Action::Fail:
            std::fprintf(stderr, "orvex-launcher: %s\n", parsed.error.c_str());
            return static_cast<int>(ExitStatus::Usage);
        case Action::Run:
            break;
    }
    return run(parsed.options);
}
