#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <map>
#include <system_error>

namespace ox::test {
namespace {

/// By name, each as "NAME=value".
std::map<std::string, std::string> merged_environment(const std::vector<std::string>& changes) {
    std::map<std::string, std::string> result;
    const auto name_of = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
    for (char** entry = environ; *entry != nullptr; ++entry)
        result[name_of(*entry)] = *entry;
    for (const auto& change : changes) {
        result.erase(name_of(change));
        if (change.find('=') != std::string::npos) result[name_of(change)] = change;
    }
    return result;
}

UniqueFd open_output(const std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    if (!fd) throw std::system_error(errno, std::generic_category(), path);
    return fd;
}

}  // namespace

ChildProcess::ChildProcess(const Options& options) {
    auto arguments = options.argv;
    auto environment = merged_environment(options.environment);
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& [name, entry] : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    const UniqueFd out = open_output(options.stdout_path);
    const UniqueFd err = open_output(options.stderr_path);
    const UniqueFd in(::open("/dev/null", O_RDONLY | O_CLOEXEC));

    int report[2];  // carries errno when exec fails, closes when it works
    if (::pipe2(report, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
    const UniqueFd report_read(report[0]);
    UniqueFd report_write(report[1]);

    pid_ = ::fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) {  // only async-signal-safe calls from here on
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(in.get(), STDIN_FILENO);
        ::dup2(out.get(), STDOUT_FILENO);
        ::dup2(err.get(), STDERR_FILENO);
        ::execvpe(argv[0], argv.data(), envp.data());
        const int error = errno;
        [[maybe_unused]] const auto written = ::write(report_write.get(), &error, sizeof error);
        ::_exit(127);
    }
    report_write.reset();
    int error = 0;
    if (::read(report_read.get(), &error, sizeof error) == sizeof error) {
        ::waitpid(pid_, nullptr, 0);
        throw std::system_error(error, std::generic_category(), arguments[0]);
    }
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
