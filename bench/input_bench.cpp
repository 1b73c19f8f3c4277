// From an input datagram to the events at the device: the agent's receiver beside a bare loop of
// poll, recv and write without decryption. Each writes into a pipe in place of the device; they get
// their datagrams in turns, so that load affects both.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <sodium.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "allocation_count.h"
#include "base/clock.h"
#include "base/unique_fd.h"
#include "input/input_receiver.h"
#include "log/log.h"
#include "percentile.h"
#include "support/sockets.h"

namespace ox {
namespace {

using Key = std::array<uint8_t, InputReceiver::kKeyBytes>;
using Datagram = std::array<uint8_t, kInputDatagramBytes>;
constexpr Key kKey{1, 2, 3};
constexpr size_t kMotionBytes = 2 * sizeof(input_event);  ///< REL_X and SYN_REPORT
constexpr std::chrono::microseconds kPause{300};          ///< until the receivers poll again

struct Pipe {
    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        read.reset(ends[0]);
        write.reset(ends[1]);
        // The clock is stopped by polling the pipe, not by the scheduler.
        ::fcntl(read.get(), F_SETFL, O_NONBLOCK);
    }
    UniqueFd read;
    UniqueFd write;
};

/// A receiver under measurement: its pipe and the address it listens at.
class Path {
  public:
    virtual ~Path() = default;

    /// Sends one datagram and waits for its events. Returns the time between in nanoseconds.
    uint64_t motion(const Datagram& datagram) const {
        const auto start = SteadyClock::now();
        if (::send(launcher_.get(), datagram.data(), datagram.size(), 0) < 0) {
            throw std::runtime_error("send failed");
        }
        std::array<uint8_t, kMotionBytes> events;
        size_t have = 0;
        while (have < events.size()) {
            const ssize_t count = ::read(pipe.read.get(), events.data(), events.size() - have);
            if (count > 0) have += static_cast<size_t>(count);
            if (SteadyClock::now() - start > std::chrono::seconds(1)) {
                throw std::runtime_error("no events came");
            }
        }
        return static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - start)
                .count());
    }

  protected:
    void connect_to(uint16_t port) {
        const sockaddr_in address = test::loopback(port);
        if (::connect(launcher_.get(), reinterpret_cast<const sockaddr*>(&address),
                      sizeof address) != 0) {
            throw std::runtime_error("connect failed");
        }
    }
    Pipe pipe;

  private:
    UniqueFd launcher_{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

class AgentPath final : public Path {
  public:
    AgentPath() {
        const uint16_t port = test::port_of(test::bound_socket(SOCK_DGRAM, 0));  // free again
        receiver_.set_key(kKey.data(), kKey.size());
        if (!receiver_.start_with_device(port, std::move(pipe.write))) {
            throw std::runtime_error("the receiver did not start");
        }
        connect_to(port);
    }

  private:
    InputReceiver receiver_;
};

class BarePath final : public Path {
  public:
    BarePath() {
        connect_to(test::port_of(socket_));
        thread_ = std::jthread([this](const std::stop_token& stop) { loop(stop); });
    }

  private:
    void loop(const std::stop_token& stop) const {
        std::array<uint8_t, 256> buffer;
        std::array<input_event, 2> events{};
        events[0].type = EV_REL;
        while (!stop.stop_requested()) {
            pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
            if (::poll(&entry, 1, 200) <= 0) continue;
            if (::recv(socket_.get(), buffer.data(), buffer.size(), 0) < 1) continue;
            for (const input_event& event : events) {
                if (::write(pipe.write.get(), &event, sizeof event) < 0) return;
            }
        }
    }

    UniqueFd socket_ = test::bound_socket(SOCK_DGRAM, 0);
    std::jthread thread_;
};

Datagram sealed_motion(uint16_t sequence) {
    InputPacket packet;
    packet.seq = sequence;
    packet.data0 = 1;
    Datagram datagram{};
    std::memcpy(datagram.data(), &sequence, sizeof sequence);  // a unique nonce
    std::array<uint8_t, sizeof packet> plain{};
    std::memcpy(plain.data(), &packet, sizeof packet);
    ::crypto_aead_chacha20poly1305_ietf_encrypt(datagram.data() + kInputNonceBytes, nullptr,
                                                plain.data(), plain.size(), nullptr, 0, nullptr,
                                                datagram.data(), kKey.data());
    return datagram;
}

void datagram_to_device(benchmark::State& state) {
    const AgentPath agent;
    const BarePath bare;
    std::vector<uint64_t> agent_ns;
    std::vector<uint64_t> bare_ns;
    agent_ns.reserve(static_cast<size_t>(state.max_iterations));
    bare_ns.reserve(static_cast<size_t>(state.max_iterations));
    uint16_t sequence = 0;
    agent.motion(sealed_motion(++sequence));
    const uint64_t allocated = bench::allocation_count();
    for (auto _ : state) {
        const Datagram datagram = sealed_motion(++sequence);
        std::this_thread::sleep_for(kPause);
        agent_ns.push_back(agent.motion(datagram));
        std::this_thread::sleep_for(kPause);
        bare_ns.push_back(bare.motion(datagram));
        state.SetIterationTime(static_cast<double>(agent_ns.back()) * 1e-9);
    }
    state.counters["allocs"] = static_cast<double>(bench::allocation_count() - allocated);
    bench::report_side_by_side(state, agent_ns, bare_ns);
}
BENCHMARK(datagram_to_device)->UseManualTime()->Iterations(10'000)->Repetitions(3);

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    if (::sodium_init() < 0) return 1;
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::ERROR);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
