#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>

#include "launcher/client/video_decoder.h"
#include "play/options.h"
#include "play/player.h"
#include "play/token.h"

namespace {

using namespace ox::play;

int fail(ExitStatus status, const std::string& error) {
    std::fprintf(stderr, "orvex-play: %s\n", error.c_str());
    return static_cast<int>(status);
}

int run(Options options) {
    std::string error;
    options.token = find_token(options, error);
    if (options.token.empty()) return fail(ExitStatus::Usage, error);
    ox::launcher::silence_libav();
    Player player(options, ox::tui::os_language());
    const Player::Result result = player.run();
    if (!result.summary.empty()) std::puts(result.summary.c_str());
    if (!result.error.empty()) return fail(result.status, result.error);
    return static_cast<int>(result.status);
}

}  // namespace

int main(int argc, char** argv) {
    const std::span<char*> arguments(argv, static_cast<size_t>(argc));
    using Action = ox::CommandLineAction;
    const auto parsed = parse_command_line(arguments.subspan(argc > 0 ? 1 : 0));
    switch (parsed.action) {
        case Action::ShowHelp:
            std::fputs(usage_text().c_str(), stdout);
            return 0;
        case Action::ShowVersion:
            std::puts(OX_PLAY_VERSION);
            return 0;
        case Action::Fail:
            return fail(ExitStatus::Usage, parsed.error);
        case Action::Run:
            break;
    }
    return run(parsed.options);
}
