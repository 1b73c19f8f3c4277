#include <benchmark/benchmark.h>

#include <array>
#include <random>
#include <string>
#include <vector>

#include "allocation_count.h"
#include "log/log.h"
#include "support/sockets.h"
#include "transport/encryption.h"
#include "transport/packetizer.h"
#include "transport/token_bucket.h"
#include "transport/udp_sender.h"

namespace ox {
namespace {

using benchmark::Counter;

/// Reports time and allocations per packet of a timed loop.
class PerPacket {
  public:
    explicit PerPacket(benchmark::State& state)
        : state_(state), before_(bench::allocation_count()) {}
    void report(size_t packets_per_iteration) {
        const uint64_t allocated = bench::allocation_count() - before_;
        const double packets =
            static_cast<double>(state_.iterations()) * static_cast<double>(packets_per_iteration);
        state_.SetItemsProcessed(static_cast<int64_t>(packets));
        state_.counters["allocs_per_packet"] = static_cast<double>(allocated) / packets;
        state_.counters["s_per_packet"] = Counter(packets, Counter::kIsRate | Counter::kInvert);
    }

  private:
    benchmark::State& state_;
    uint64_t before_;
};

std::vector<uint8_t> random_bytes(size_t size) {
    std::mt19937 random(1);
    std::vector<uint8_t> bytes(size);
    for (uint8_t& byte : bytes)
        byte = static_cast<uint8_t>(random());
    return bytes;
}

// 31 KB is a picture at 15 Mbit/s and 60 per second.
void packetize(benchmark::State& state, size_t size, bool keyframe) {
    EncodedFrame frame;
    frame.data = random_bytes(size);
    frame.keyframe = keyframe;
    const Packetizer packetizer;
    std::vector<OutgoingPacket> packets;
    packetizer.packetize(frame, kStreamVideo, packets);  // warms up the vector
    PerPacket counts(state);
    for (auto _ : state) {
        packets.clear();
        packetizer.packetize(frame, kStreamVideo, packets);
        benchmark::DoNotOptimize(packets.data());
        benchmark::ClobberMemory();
    }
    counts.report(packets.size());
}
BENCHMARK_CAPTURE(packetize, p_frame_31KB, 31'000, false);
BENCHMARK_CAPTURE(packetize, keyframe_300KB, 300'000, true);

void nonce(benchmark::State& state) {
    std::array<uint8_t, audioparity::kNonceBytes> out;
    uint16_t index = 0;
    for (auto _ : state) {
        audioparity::build_nonce(kStreamVideo, 1, ++index, packet_flags::KEYFRAME, out.data());
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(nonce);

void seal_1162(benchmark::State& state) {
    Encryption encryption;
    encryption.set_key(random_bytes(Encryption::kKeyBytes).data(), Encryption::kKeyBytes);
    OutgoingPacket packet;
    packet.payload.assign(random_bytes(kVideoPayloadBytes));
    PerPacket counts(state);
    for (auto _ : state) {
        size_t length = 0;
        encryption.encrypt_packet(packet.header, packet.payload.data(), kVideoPayloadBytes,
                                  packet.payload.data(), length);
        benchmark::DoNotOptimize(length);
        ++packet.header.frame_id;
    }
    counts.report(1);
}
BENCHMARK(seal_1162);

void xor_parity_group(benchmark::State& state) {
    const std::vector<uint8_t> group = random_bytes(Packetizer::kGroupPackets * kVideoPayloadBytes);
    std::vector<uint8_t> parity(kVideoPayloadBytes);
    for (auto _ : state) {
        for (size_t i = 0; i < Packetizer::kGroupPackets; ++i)
            xor_into(parity.data(), group.data() + i * kVideoPayloadBytes, kVideoPayloadBytes);
        benchmark::DoNotOptimize(parity.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(group.size()));
}
BENCHMARK(xor_parity_group);

void token_bucket(benchmark::State& state) {
    TokenBucket bucket(2'812'500, SteadyClock::now());
    for (auto _ : state)
        benchmark::DoNotOptimize(bucket.take(1200, SteadyClock::now()));
}
BENCHMARK(token_bucket);

// Full datagrams to a loopback socket that is never read: once its buffer is full the kernel drops
// them on arrival, as for a slow receiver.
void send_packet(benchmark::State& state) {
    const UniqueFd sink = test::bound_socket(SOCK_DGRAM, 0);
    UdpSender sender;
    if (!sender.open("127.0.0.1", test::port_of(sink), 0)) {
        state.SkipWithError("no loopback socket");
        return;
    }
    OutgoingPacket packet;
    packet.payload.assign(random_bytes(kVideoPayloadBytes + kTagBytes));
    sender.send_packet(packet);
    PerPacket counts(state);
    for (auto _ : state)
        sender.send_packet(packet);
    counts.report(1);
    state.counters["errors"] = static_cast<double>(sender.send_errors());
}
BENCHMARK(send_packet);

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::ERROR);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
