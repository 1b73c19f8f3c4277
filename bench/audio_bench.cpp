// From 5 ms of PCM to its datagram: the audio stream's packetizer beside libopus and a bare sendto.

#include <benchmark/benchmark.h>
#include <opus/opus.h>

#include <array>
#include <cmath>
#include <memory>
#include <numbers>
#include <vector>

#include "allocation_count.h"
#include "audio/audio_packetizer.h"
#include "base/clock.h"
#include "base/unique_fd.h"
#include "log/log.h"
#include "percentile.h"
#include "support/sockets.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kBitrate = 128000;
constexpr int kFrameSamples = 240;
constexpr size_t kFrames = 200;  ///< one second of sound, over and over

using Frame = std::array<int16_t, size_t{kFrameSamples} * kChannels>;

/// Two tones and some noise.
std::vector<Frame> sound() {
    std::vector<Frame> frames(kFrames);
    uint32_t noise = 1;
    for (size_t i = 0; i < kFrames * kFrameSamples; ++i) {
        const double t = static_cast<double>(i) / kRate;
        noise = noise * 1664525U + 1013904223U;
        const double value = 6000 * std::sin(2 * std::numbers::pi * 440 * t) +
                             4000 * std::sin(2 * std::numbers::pi * 3100 * t) +
                             static_cast<double>(noise >> 20U);
        for (size_t channel = 0; channel < kChannels; ++channel) {
            frames[i / kFrameSamples][i % kFrameSamples * kChannels + channel] =
                static_cast<int16_t>(value);
        }
    }
    return frames;
}

/// A loopback socket that is never read.
struct Sink {
    UniqueFd socket = test::bound_socket(SOCK_DGRAM, 0);
    uint16_t port = test::port_of(socket);
    sockaddr_in address = test::loopback(port);
};

/// What the audio thread does with a buffer.
class AgentPath {
  public:
    AgentPath(const Sink& sink, bool parity) {
        const std::array<uint8_t, Encryption::kKeyBytes> key{7};
        packetizer_.set_parity_enabled(parity);
        ready_ = sender_.open("127.0.0.1", sink.port, 0) &&
                 packetizer_.open(sender_, key, kRate, kChannels, kBitrate);
    }
    [[nodiscard]] bool ready() const { return ready_; }
    void send(const Frame& pcm) { packetizer_.send_frame(pcm.data()); }
    [[nodiscard]] uint64_t packets() const { return sender_.packets_sent(); }

  private:
    UdpSender sender_;
    AudioPacketizer packetizer_;
    bool ready_ = false;
};

/// The minimum: libopus with the same settings, and one unencrypted sendto.
class BarePath {
  public:
    explicit BarePath(const Sink& sink)
        : sink_(sink),
          encoder_(::opus_encoder_create(kRate, kChannels, OPUS_APPLICATION_RESTRICTED_LOWDELAY,
                                         nullptr)) {
        ::opus_encoder_ctl(encoder_.get(), OPUS_SET_BITRATE(kBitrate));
        ::opus_encoder_ctl(encoder_.get(), OPUS_SET_VBR(0));
        ::opus_encoder_ctl(encoder_.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_MUSIC));
    }

    void send(const Frame& pcm) {
        const int length = ::opus_encode(encoder_.get(), pcm.data(), kFrameSamples, buffer_.data(),
                                         static_cast<opus_int32>(buffer_.size()));
        ::sendto(socket_.get(), buffer_.data(), static_cast<size_t>(length), 0,
                 reinterpret_cast<const sockaddr*>(&sink_.address), sizeof(sockaddr_in));
    }

  private:
    struct Destroy {
        void operator()(OpusEncoder* encoder) const { ::opus_encoder_destroy(encoder); }
    };
    const Sink& sink_;
    std::unique_ptr<OpusEncoder, Destroy> encoder_;
    UniqueFd socket_{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    std::array<uint8_t, 1200> buffer_{};
};

template <typename Path>
uint64_t timed_ns(Path& path, const Frame& frame) {
    const auto start = SteadyClock::now();
    path.send(frame);
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyClock::now() - start).count());
}

void buffer_to_datagram(benchmark::State& state, bool parity) {
    const Sink sink;
    AgentPath agent(sink, parity);
    BarePath bare(sink);
    if (!agent.ready()) return state.SkipWithError("no encoder or no loopback socket");
    const std::vector<Frame> frames = sound();
    std::vector<uint64_t> agent_ns;
    std::vector<uint64_t> bare_ns;
    agent_ns.reserve(static_cast<size_t>(state.max_iterations));
    bare_ns.reserve(static_cast<size_t>(state.max_iterations));
    for (const Frame& frame : frames) {  // warms up codec and buffers
        agent.send(frame);
        bare.send(frame);
    }
    const uint64_t allocated = bench::allocation_count();
    const uint64_t packets = agent.packets();
    size_t next = 0;
    for (auto _ : state) {
        const Frame& frame = frames[next++ % frames.size()];
        agent_ns.push_back(timed_ns(agent, frame));
        bare_ns.push_back(timed_ns(bare, frame));
        state.SetIterationTime(static_cast<double>(agent_ns.back()) * 1e-9);
    }
    const auto sent = static_cast<double>(agent.packets() - packets);
    state.counters["packets_per_frame"] = sent / static_cast<double>(state.iterations());
    state.counters["allocs_per_frame"] =
        static_cast<double>(bench::allocation_count() - allocated) /
        static_cast<double>(state.iterations());
    bench::report_side_by_side(state, agent_ns, bare_ns);
}
BENCHMARK_CAPTURE(buffer_to_datagram, plain, false)
    ->UseManualTime()
    ->Iterations(20'000)
    ->Repetitions(3);
BENCHMARK_CAPTURE(buffer_to_datagram, parity, true)
    ->UseManualTime()
    ->Iterations(20'000)
    ->Repetitions(3);

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::ERROR);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
