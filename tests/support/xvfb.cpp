#include "support/xvfb.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <random>

namespace ox::test {

std::unique_ptr<Xvfb> Xvfb::start(const Setup& setup) {
    int ends[2];
    if (::pipe(ends) != 0) return nullptr;  // the server inherits the writing end
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    // Random: the display of a killed server is not soon reused by another test.
    const std::string display = ":" + std::to_string(100 + std::random_device()() % 50'000);
    ChildProcess::Options options;
    options.argv = setup.wrapper;
    const std::vector<std::string> arguments{
        "Xvfb",     display,     "-displayfd", std::to_string(writing.get()),
        "-noreset", "-nolisten", "tcp",        "-screen",
        "0",        setup.screen};
    options.argv.insert(options.argv.end(), arguments.begin(), arguments.end());
    options.argv.insert(options.argv.end(), setup.arguments.begin(), setup.arguments.end());

    std::unique_ptr<Xvfb> server(new Xvfb);
    server->process_ = std::make_unique<ChildProcess>(options);
    writing.reset();
    pollfd listening{reading.get(), POLLIN, 0};
    char digit = 0;
    if (::poll(&listening, 1, 20'000) != 1 || ::read(reading.get(), &digit, 1) != 1) return nullptr;
    server->display_ = display;
    return server;
}

void Xvfb::kill() {
    process_->signal(SIGKILL);
    process_->wait(std::chrono::seconds(20));
}

}  // namespace ox::test
