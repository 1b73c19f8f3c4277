// orvex-check [option of orvex-agent...]: tries out what a session with these options needs, and
// prints a line for each: "encoder ...", "picture ...", "sound ..." (session_checks.h), or "stuck"
// or "crashed" in place of the words. Private to start-agent, which has the texts for the owner.
//
// Exit status: 0 a session could be played; 1 it could not; 2 unusable options.

#include <chrono>
#include <cstdio>
#include <span>
#include <string>

#include "app/options.h"
#include "base/mutex.h"
#include "check/bounded_step.h"
#include "check/session_checks.h"
#include "log/log.h"

namespace ox {
namespace {

constexpr int kExitPlayable = 0;
constexpr int kExitNotPlayable = 1;
constexpr int kExitUsage = 2;

// A driver that works opens within a second or two; all three steps run at the same time.
constexpr std::chrono::seconds kLimit{20};

std::string words(const BoundedStep::Result& result) {
    switch (result.end) {
        case BoundedStep::End::TimedOut:
            return "stuck";
        case BoundedStep::End::Crashed:
            return "crashed";
        case BoundedStep::End::Answered:
            break;
    }
    return result.text;
}

int run(int argc, char** argv) {
    const std::span<const char* const> arguments(argv, static_cast<size_t>(argc));
    const auto command_line =
        parse_command_line(arguments.subspan(arguments.empty() ? 0 : 1), default_options());
    if (command_line.action == CommandLineAction::Fail) {
        OX_ERROR("%s",
                 command_line.error.empty() ? "unusable options" : command_line.error.c_str());
    }
    if (command_line.action != CommandLineAction::Run) return kExitUsage;
    const Options& options = command_line.options;
    const bool wants_reasons = options.log_level && *options.log_level <= LogLevel::DEBUG;
    {
        const MutexLock lock(log_mutex());
        log_sinks().console = wants_reasons;
    }
    log_level() = static_cast<int32_t>(LogLevel::DEBUG);

    BoundedStep encoder_step([&] { return check_encoder(options); }, kLimit);
    BoundedStep picture_step([&] { return check_picture(options); }, kLimit);
    BoundedStep sound_step([&] { return check_sound(options); }, kLimit);
    const std::string encoder = words(encoder_step.wait());
    std::printf("encoder %s\n", encoder.c_str());
    const std::string picture = words(picture_step.wait());
    std::printf("picture %s\n", picture.c_str());
    std::printf("sound %s\n", words(sound_step.wait()).c_str());
    return is_playable(encoder, picture) ? kExitPlayable : kExitNotPlayable;
}

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    return ox::run(argc, argv);
}
