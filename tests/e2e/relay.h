#pragma once

#include <poll.h>

#include <atomic>
#include <random>
#include <string_view>
#include <thread>
#include <vector>

#include "support/sockets.h"

namespace ox::test {

/// The path between a player and an agent.
class Relay {
  public:
    explicit Relay(uint16_t agent_base) : agent_base_(agent_base) {
        for (const int offset : {2, 4, 5})
            routes_.push_back({bound_socket(SOCK_DGRAM, port(ports_.base(), offset)),
                               attached(SOCK_DGRAM, offset), false});
        thread_ = std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested())
                step();
        });
    }

    [[nodiscard]] uint16_t port_base() const { return ports_.base(); }

    std::atomic<int> loss_pct{0};          ///< of datagrams, in bursts of three
    std::atomic<bool> cut{false};          ///< resets connections, passes no datagrams
    std::atomic<bool> other_codec{false};  ///< asks the agent for HEVC instead of H.264
    std::atomic<int> lost{0};

  private:
    struct Route {
        UniqueFd near, far;
        bool connection;
        bool finished = false;  ///< not reset
        sockaddr_in player{};
        socklen_t player_size = sizeof player;
    };

    static uint16_t port(int base, int offset) { return static_cast<uint16_t>(base + offset); }
    [[nodiscard]] UniqueFd attached(int type, int offset) const {
        UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
        const sockaddr_in agent = loopback(port(agent_base_, offset));
        ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&agent), sizeof agent);
        return fd;
    }

    void step() {
        down_ = cut;
        std::vector<pollfd> entries{{listener_.get(), POLLIN, 0}};
        for (const Route& route : routes_)
            for (const UniqueFd* fd : {&route.near, &route.far})
                entries.push_back({fd->get(), POLLIN, 0});
        ::poll(entries.data(), entries.size(), 10);
        std::erase_if(routes_, [&](Route& route) {
            const bool open = pass(route, true) && pass(route, false);
            if (!route.connection || open) return false;
            const linger reset{.l_onoff = !route.finished, .l_linger = 0};
            for (const UniqueFd* fd : {&route.near, &route.far})
                ::setsockopt(fd->get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            return true;
        });
        if (entries[0].revents != 0)
            routes_.push_back({UniqueFd(::accept(listener_.get(), nullptr, nullptr)),
                               attached(SOCK_STREAM, 3), true});
    }

    /// What has come from the player, or from the agent. False at the end of a connection.
    bool pass(Route& route, bool of_player) {
        const int from = of_player ? route.near.get() : route.far.get();
        auto* player = route.connection ? nullptr : reinterpret_cast<sockaddr*>(&route.player);
        for (;;) {
            std::string bytes(4096, '\0');
            const ssize_t got =
                ::recvfrom(from, bytes.data(), bytes.size(), MSG_DONTWAIT,
                           of_player ? player : nullptr, of_player ? &route.player_size : nullptr);
            if (got < 0) return errno == EAGAIN && !down_;
            route.finished = got == 0 && route.connection;
            if (route.finished) return false;
            bytes.resize(static_cast<size_t>(got));
            constexpr std::string_view kCodec = "\"codec\":0";
            const size_t codec = other_codec ? bytes.find(kCodec) : std::string::npos;
            if (codec != std::string::npos) bytes[codec + kCodec.size() - 1] = '1';
            if (down_ || (!route.connection && is_lost())) continue;
            if (of_player)
                ::send(route.far.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            else
                ::sendto(route.near.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL, player,
                         player != nullptr ? route.player_size : 0);
        }
    }

    bool is_lost() {
        constexpr int kBurst = 3;
        if (burst_ == 0 && static_cast<int>(random_() % (100 * kBurst)) < loss_pct) burst_ = kBurst;
        if (loss_pct < 100 && burst_ == 0) return false;
        burst_ = std::max(burst_ - 1, 0);
        ++lost;
        return true;
    }

    const uint16_t agent_base_;
    PortBlock ports_;
    UniqueFd listener_ = bound_socket(SOCK_STREAM, ports_.control());
    std::vector<Route> routes_;
    std::mt19937 random_{1};
    int burst_ = 0;
    bool down_ = false;  ///< `cut`, once in a step
    std::jthread thread_;
};

}  // namespace ox::test
