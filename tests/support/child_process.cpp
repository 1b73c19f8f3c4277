#include "support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string_view>
#include <system_error>

namespace ox::test {
namespace {

std::vector<std::string> merged_environment(const std::vector<std::string>& changes) {
    const auto name_of = [](std::string_view entry) { return entry.substr(0, entry.find('=')); };
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        bool replaced = false;
        for (const auto& change : changes)
            replaced |= name_of(change) == name_of(*entry);
        if (!replaced) result.emplace_back(*entry);
    }
    for (const auto& change : changes) {
        if (change.find('=') != std::string::npos) result.push_back(change);
    }
    return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (auto& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
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
    const auto argv = pointers(arguments);
    const auto envp = pointers(environment);
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
    if (!pidfd_) {
        const int pidfd_error = errno;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
        throw std::system_error(pidfd_error, std::generic_category(), "pidfd_open");
    }
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
    std::ifstream in("/proc/" + std::to_string(pid_) + "/stat");
    const std::string line{std::istreambuf_iterator<char>(in), {}};
    const auto after_name = line.rfind(')');
    if (after_name == std::string::npos) return {};
    std::istringstream fields(line.substr(after_name + 2));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;  // fields 3 to 13; 14 and 15 are the times
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return std::chrono::milliseconds((user + system) * 1000 / ::sysconf(_SC_CLK_TCK));
}

}  // namespace ox::test
