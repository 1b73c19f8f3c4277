#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <system_error>

namespace ox::test {
ChildProcess::ChildProcess(const Options& options) {
    std::vector<std::string> arguments{"setpriv", "--pdeathsig=KILL"};
    for (const auto& change : options.environment) {
        arguments.insert(arguments.end(), {"env", change});
        if (change.find('=') == std::string::npos) arguments.insert(arguments.end() - 1, "-u");
    }
    arguments.insert(arguments.end(), options.argv.begin(), options.argv.end());
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND;
    ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, options.stdout_path.c_str(), kAppend,
                                       0600);
    ::posix_spawn_file_actions_addopen(&files, STDERR_FILENO, options.stderr_path.c_str(), kAppend,
                                       0600);
    const int error = ::posix_spawnp(&pid_, argv[0], &files, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw std::system_error(error, std::generic_category(), options.argv[0]);
    pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
}

ChildProcess::~ChildProcess() {
    if (status_) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

void ChildProcess::signal(int number) const {
    if (!status_) ::kill(pid_, number);
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (status_) return status_;
    pollfd ended{pidfd_.get(), POLLIN, 0};
    if (::poll(&ended, 1, static_cast<int>(timeout.count())) != 1) return std::nullopt;
    int raw = 0;
    ::waitpid(pid_, &raw, 0);
    status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_;
}

std::chrono::milliseconds ChildProcess::cpu_time() const {
    clockid_t clock{};
    timespec used{};
    if (::clock_getcpuclockid(pid_, &clock) == 0) ::clock_gettime(clock, &used);
    return std::chrono::milliseconds(used.tv_sec * 1000 + used.tv_nsec / 1'000'000);
}

}  // namespace ox::test
