#include "audio/piped_child.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>

#include "base/clock.h"
#include "base/sleep.h"

namespace ox {
namespace {

/// The child's side of fork: only async-signal-safe calls from here to exec.
[[noreturn]] void run_child(char* const* argv, char* const* environment, int output, pid_t parent) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM, 0UL, 0UL, 0UL);
    const bool parent_died_before = ::getppid() != parent;
    if (parent_died_before) ::_exit(127);
    ::signal(SIGPIPE, SIG_DFL);  // NOLINT: the macro casts
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::dup2(output, STDOUT_FILENO);
    const int null_input = ::open("/dev/null", O_RDONLY);
    if (null_input >= 0) ::dup2(null_input, STDIN_FILENO);
    ::close_range(STDERR_FILENO + 1, ~0U, 0);
    ::execvpe(argv[0], argv, environment);
    ::_exit(127);
}

void append(std::vector<char*>& pointers, const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));  // NOLINT: exec's signature
}

}  // namespace

PipedChild::Started PipedChild::start(const std::vector<std::string>& argv,
                                      const std::vector<std::string>& overrides) {
    stop();
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) < 0) return Started::NoPipe;
    UniqueFd read_end(ends[0]);
    const UniqueFd write_end(ends[1]);
    std::vector<char*> arguments;
    append(arguments, argv);
    arguments.push_back(nullptr);
    std::vector<char*> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const bool overridden = std::ranges::any_of(overrides, [&](std::string_view variable) {
            const std::string_view name = variable.substr(0, variable.find('=') + 1);
            return std::string_view(*entry).starts_with(name);
        });
        if (!overridden) variables.push_back(*entry);
    }
    append(variables, overrides);
    variables.push_back(nullptr);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) return Started::NoFork;
    if (pid == 0) run_child(arguments.data(), variables.data(), write_end.get(), parent);
    pid_ = pid;
    output_ = std::move(read_end);
    return Started::Ok;
}

void PipedChild::stop() {
    constexpr int kTries = 20;
    constexpr std::chrono::milliseconds kPause{10};
    output_.reset();
    if (pid_ < 0) return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < kTries; ++i) {
        const pid_t reaped = ::waitpid(pid_, nullptr, WNOHANG);
        if (reaped == pid_ || (reaped < 0 && errno != EINTR)) break;
        sleep_until_steady(SteadyClock::now() + kPause);
    }
    pid_ = -1;
}

std::string shell_output(const std::string& command, const std::vector<std::string>& overrides,
                         std::chrono::milliseconds limit, const std::function<bool()>& cancelled) {
    constexpr size_t kMaxBytes = 255;
    constexpr std::chrono::milliseconds kSlice{50};
    PipedChild child;
    if (child.start({"/bin/sh", "-c", command}, overrides) != PipedChild::Started::Ok) return {};
    const auto deadline = SteadyClock::now() + limit;
    std::string text;
    while (text.size() < kMaxBytes) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
        if (left.count() <= 0 || cancelled()) {
            // A grandchild may keep the pipe open after the answer.
            if (text.find('\n') == text.npos) return {};
            break;
        }
        pollfd entry{.fd = child.output(), .events = POLLIN, .revents = 0};
        const int ready = ::poll(&entry, 1, static_cast<int>(std::min(left, kSlice).count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return {};
        if (ready == 0) continue;
        std::array<char, kMaxBytes> chunk{};
        const ssize_t length = ::read(child.output(), chunk.data(), kMaxBytes - text.size());
        if (length < 0 && errno == EINTR) continue;
        if (length <= 0) break;
        text.append(chunk.data(), static_cast<size_t>(length));
    }
    text.erase(text.find_last_not_of(" \t\r\n") + 1);
    return text;
}

}  // namespace ox
