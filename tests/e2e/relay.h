#pragma once

#include <poll.h>

#include <array>
#include <atomic>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "base/mutex.h"
#include "input/input_packet.h"
#include "launcher/client/control_messages.h"
#include "support/port_block.h"

namespace ox::test {

/// The path between a player and an agent, under the test's control.
class Relay {
  public:
    explicit Relay(uint16_t agent_base) : agent_base_(agent_base) {
        for (size_t i = 0; i < kMediaPorts.size(); ++i) {
            const auto offset = kMediaPorts[i];
            routes_[i].near = bound_socket(SOCK_DGRAM, port(ports_.base(), offset));
            routes_[i].far = attached(SOCK_DGRAM, offset);
        }
        thread_ = std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested())
                step();
        });
    }

    [[nodiscard]] uint16_t port_base() const { return ports_.base(); }

    std::atomic<int> loss_pct{0};          ///< of datagrams, in bursts of three
    std::atomic<bool> cut{false};          ///< resets connections, passes no datagrams
    std::atomic<bool> other_codec{false};  ///< asks the agent for another codec than the player did
    std::atomic<int> lost{0};

    /// What the player sent as input, without copies.
    std::vector<InputPacket> input() const {
        const MutexLock lock(mutex_);
        return input_;
    }

  private:
    static constexpr std::array<int, 3> kMediaPorts = {2, 4, 5};
    static constexpr int kInputPort = 2;

    struct Route {
        UniqueFd near, far;
        sockaddr_in player{};
    };
    struct Connection {
        UniqueFd player, agent;
    };

    static uint16_t port(int base, int offset) { return static_cast<uint16_t>(base + offset); }
    [[nodiscard]] UniqueFd attached(int type, int offset) const {
        UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
        const sockaddr_in agent = loopback(port(agent_base_, offset));
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&agent), sizeof agent) != 0)
            fd.reset();
        return fd;
    }

    void step() {
        std::vector<pollfd> entries{{listener_.get(), POLLIN, 0}};
        for (const Route& route : routes_)
            for (const int fd : {route.near.get(), route.far.get()})
                entries.push_back({fd, POLLIN, 0});
        for (const Connection& connection : connections_)
            for (const int fd : {connection.player.get(), connection.agent.get()})
                entries.push_back({fd, POLLIN, 0});
        ::poll(entries.data(), entries.size(), 10);
        size_t at = 1;
        for (size_t i = 0; i < routes_.size(); ++i, at += 2)
            pass_datagrams(routes_[i], kMediaPorts[i] == kInputPort);
        std::erase_if(connections_, [&](Connection& connection) {
            const bool of_player = entries[at++].revents != 0;
            const bool of_agent = entries[at++].revents != 0;
            if (!cut && (!of_player || pass_text(connection, true)) &&
                (!of_agent || pass_text(connection, false)))
                return false;
            const linger reset{.l_onoff = cut ? 1 : 0, .l_linger = 0};
            for (const UniqueFd* fd : {&connection.player, &connection.agent})
                ::setsockopt(fd->get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            return true;
        });
        if (entries[0].revents != 0)
            connections_.push_back({.player = UniqueFd(::accept(listener_.get(), nullptr, nullptr)),
                                    .agent = attached(SOCK_STREAM, 3)});
    }

    bool pass_text(Connection& connection, bool of_player) {
        const auto& [from, to] = of_player ? std::tie(connection.player, connection.agent)
                                           : std::tie(connection.agent, connection.player);
        std::string text(4096, '\0');
        const ssize_t got = ::recv(from.get(), text.data(), text.size(), 0);
        if (got <= 0) return false;
        text.resize(static_cast<size_t>(got));
        constexpr std::string_view kCodec = "\"codec\":";
        if (const size_t found = text.find(kCodec); other_codec && found != std::string::npos)
            text[found + kCodec.size()] ^= 1;
        if (!of_player && text.find("session_ready") != std::string::npos) {
            std::string error;
            const MutexLock lock(mutex_);
            launcher::parse_session_ready(text.substr(0, text.find('\n')), keys_, error);
        }
        return ::send(to.get(), text.data(), text.size(), MSG_NOSIGNAL) == got;
    }

    void pass_datagrams(Route& route, bool input) {
        std::array<uint8_t, 2048> bytes{};
        for (;;) {
            socklen_t size = sizeof route.player;
            const ssize_t got =
                ::recvfrom(route.near.get(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                           reinterpret_cast<sockaddr*>(&route.player), &size);
            if (got < 0) break;
            const auto datagram = std::span(bytes).first(static_cast<size_t>(got));
            if (input) note_input(datagram);
            if (!is_lost()) ::send(route.far.get(), datagram.data(), datagram.size(), 0);
        }
        for (;;) {
            const ssize_t got = ::recv(route.far.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (got < 0) break;
            if (!is_lost())
                ::sendto(route.near.get(), bytes.data(), static_cast<size_t>(got), 0,
                         reinterpret_cast<const sockaddr*>(&route.player), sizeof route.player);
        }
    }

    bool is_lost() {
        constexpr int kBurst = 3;
        if (burst_ == 0 && static_cast<int>(random_() % (100 * kBurst)) < loss_pct) burst_ = kBurst;
        if (!cut && loss_pct < 100 && burst_ == 0) return false;
        burst_ = std::max(burst_ - 1, 0);
        ++lost;
        return true;
    }

    void note_input(std::span<const uint8_t> datagram) {
        const MutexLock lock(mutex_);
        InputPacket packet;
        if (keys_.input_key.size() == 0 ||
            !open_input_datagram(keys_.input_key.data(), datagram, packet) ||
            is_feedback(packet.kind))
            return;
        const auto same = [&](const InputPacket& other) { return other.seq == packet.seq; };
        if (std::ranges::none_of(input_, same)) input_.push_back(packet);
    }

    const uint16_t agent_base_;
    PortBlock ports_;
    UniqueFd listener_ = bound_socket(SOCK_STREAM, ports_.control());
    std::array<Route, kMediaPorts.size()> routes_;
    std::vector<Connection> connections_;
    std::mt19937 random_{1};
    int burst_ = 0;
    mutable Mutex mutex_;
    SessionKeySet keys_ OX_GUARDED_BY(mutex_);
    std::vector<InputPacket> input_ OX_GUARDED_BY(mutex_);
    std::jthread thread_;
};

}  // namespace ox::test
