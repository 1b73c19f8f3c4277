#include "support/xvfb.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <system_error>

namespace ox::test {
namespace {

/// The number that the server writes once it listens; empty when it ends or takes too long.
std::string read_display_number(int fd, std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::string number;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd readable{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) != 1) {
            return {};
        }
        char byte = 0;
        if (::read(fd, &byte, 1) != 1) return {};
        if (byte == '\n') return number;
        number += byte;
    }
}

}  // namespace

std::unique_ptr<Xvfb> Xvfb::start(const Setup& setup) {
    int ends[2];
    if (::pipe(ends) != 0) return nullptr;  // the server inherits the writing end
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    ChildProcess::Options options;
    if (setup.other_ipc_namespace) options.argv = {"unshare", "--ipc"};
    for (const char* argument : {"Xvfb", "-displayfd"})
        options.argv.emplace_back(argument);
    options.argv.push_back(std::to_string(writing.get()));
    for (const char* argument : {"-noreset", "-nolisten", "tcp", "-screen", "0"}) {
        options.argv.emplace_back(argument);
    }
    options.argv.push_back(setup.screen);
    options.argv.insert(options.argv.end(), setup.arguments.begin(), setup.arguments.end());

    std::unique_ptr<Xvfb> server(new Xvfb);
    try {
        server->process_ = std::make_unique<ChildProcess>(options);
    } catch (const std::system_error&) {
        return nullptr;
    }
    writing.reset();
    const std::string number = read_display_number(reading.get(), setup.patience);
    if (number.empty()) return nullptr;
    server->display_ = ":" + number;
    return server;
}

void Xvfb::kill() {
    process_->signal(SIGKILL);
    process_->wait(std::chrono::seconds(20));
}

}  // namespace ox::test
