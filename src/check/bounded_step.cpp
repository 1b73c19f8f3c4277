#include "check/bounded_step.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>

#include "base/sleep.h"

namespace ox {
namespace {

constexpr size_t kMaxAnswer = 4096;  // a pipe takes as much at once

[[noreturn]] void answer_and_end(const std::function<std::string()>& step, int pipe, pid_t parent) {
    // A group of its own, so that the step's children can be ended with it.
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0UL, 0UL, 0UL);
    if (::getppid() != parent) ::_exit(1);
    // Who reads the parent's output is not to wait for a step that cannot be ended.
    const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere >= 0) ::dup2(nowhere, STDOUT_FILENO);
    const std::string text = step();
    const size_t size = std::min(text.size(), kMaxAnswer);
    // Nothing of the parent's is flushed or destroyed twice.
    ::_exit(::write(pipe, text.data(), size) == static_cast<ssize_t>(size) ? 0 : 1);
}

}  // namespace

BoundedStep::BoundedStep(const std::function<std::string()>& step, std::chrono::milliseconds limit)
    : deadline_(SteadyClock::now() + limit) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) < 0) return;
    UniqueFd read_end(ends[0]);
    const UniqueFd write_end(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) return;
    if (pid == 0) answer_and_end(step, write_end.get(), parent);
    ::setpgid(pid, pid);  // whoever comes first
    pid_ = pid;
    answer_ = std::move(read_end);
}

BoundedStep::~BoundedStep() {
    end();
}

BoundedStep::Result BoundedStep::wait() {
    Result result;
    while (answer_) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline_ - SteadyClock::now());
        pollfd entry{.fd = answer_.get(), .events = POLLIN, .revents = 0};
        const int ready = ::poll(&entry, 1, std::max(0, static_cast<int>(left.count())));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            result.end = End::TimedOut;
            break;
        }
        std::array<char, kMaxAnswer> bytes{};
        const ssize_t length = ::read(answer_.get(), bytes.data(), bytes.size());
        if (length < 0 && errno == EINTR) continue;
        if (length > 0) result = {End::Answered, {bytes.data(), static_cast<size_t>(length)}};
        break;
    }
    end();
    return result;
}

/// A process that sits in a driver may take no signal: it is left to itself then.
void BoundedStep::end() {
    constexpr int kTries = 50;
    constexpr std::chrono::milliseconds kPause{10};
    answer_.reset();
    if (pid_ < 0) return;
    ::kill(-pid_, SIGKILL);
    for (int i = 0; i < kTries && ::waitpid(pid_, nullptr, WNOHANG) == 0; ++i)
        sleep_until_steady(SteadyClock::now() + kPause);
    pid_ = -1;
}

}  // namespace ox
