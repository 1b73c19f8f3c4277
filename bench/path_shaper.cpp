#include "path_shaper.h"

#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <map>
#include <stdexcept>
#include <vector>

#include "base/clock.h"
#include "support/sockets.h"

namespace ox::bench {

PathShaper::PathShaper(const test::ShapedPath::Setup& setup, uint16_t agent_port)
    : path_(setup),
      player_(test::bound_socket(SOCK_DGRAM, 0)),
      agent_(test::bound_socket(SOCK_DGRAM, 0)) {
    const sockaddr_in agent = test::loopback(agent_port);
    const auto* address = reinterpret_cast<const sockaddr*>(&agent);
    if (!player_ || !agent_ || ::connect(agent_.get(), address, sizeof agent) != 0) {
        throw std::runtime_error("the path shaper has no sockets");
    }
    const int buffer = 4 << 20;
    ::setsockopt(agent_.get(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

uint16_t PathShaper::port() const {
    return test::port_of(player_);
}

void PathShaper::run(const std::stop_token& stop) {
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    std::multimap<uint64_t, std::vector<uint8_t>> on_way;  // by arrival
    std::array<uint8_t, 2048> bytes{};
    bool connected = false;
    while (!stop.stop_requested()) {
        std::array<pollfd, 2> entries{{{.fd = player_.get(), .events = POLLIN, .revents = 0},
                                       {.fd = agent_.get(), .events = POLLIN, .revents = 0}}};
        const uint64_t now = steady_now_us();
        uint64_t wait_us = 20'000;
        if (!on_way.empty()) {
            const uint64_t next = on_way.begin()->first;
            wait_us = next > now ? std::min(wait_us, next - now) : 0;
        }
        const timespec wait{.tv_sec = 0, .tv_nsec = static_cast<long>(wait_us * 1000)};
        ::ppoll(entries.data(), entries.size(), &wait, nullptr);
        if ((entries[0].revents & POLLIN) != 0) {
            sockaddr_in from{};
            socklen_t size = sizeof from;
            auto* address = reinterpret_cast<sockaddr*>(&from);
            const ssize_t got =
                ::recvfrom(player_.get(), bytes.data(), bytes.size(), 0, address, &size);
            if (got > 0 && !connected) {
                connected = ::connect(player_.get(), address, size) == 0;
            }
            if (got > 0) ::send(agent_.get(), bytes.data(), static_cast<size_t>(got), 0);
        }
        for (;;) {
            const ssize_t got = ::recv(agent_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (got <= 0) break;
            const uint64_t sent = steady_now_us();
            if (started_us_ == 0) started_us_ = sent;
            const auto size = static_cast<size_t>(got);
            if (const auto arrival = path_.pass(sent - started_us_, size)) {
                on_way.emplace(started_us_ + *arrival,
                               std::vector<uint8_t>(bytes.begin(), bytes.begin() + got));
            }
        }
        const auto due = on_way.upper_bound(steady_now_us());
        for (auto item = on_way.begin(); item != due; ++item) {
            ::send(player_.get(), item->second.data(), item->second.size(), 0);
        }
        on_way.erase(on_way.begin(), due);
    }
}

}  // namespace ox::bench
